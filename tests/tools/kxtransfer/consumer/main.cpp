// Links against the installed engine and calls it through the public header only.

#include <IKXTransfer.h>

#include <cstdio>

int main()
{
    Transfer::setConfig(TransferConfigUserPath, QStringLiteral("3"));
    SubTaskInfo unknown;
    const bool found = Transfer::taskInfo(QStringLiteral("{no-such-task}"), unknown);
    const int live = Transfer::transferCount();
    std::printf("%s %d, %d live, found %d\n", errorCodeName(TargetExists), TargetExists, live, found ? 1 : 0);
    Transfer::deinit();
    return !found && live == 0 ? 0 : 1;
}
