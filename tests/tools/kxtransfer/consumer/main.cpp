// Links against the installed engine and calls it through the public headers only.

#include <IKXTransfer.h>
#include <ServerApiConfig.h>

#include <cstdio>

int main()
{
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = QStringLiteral("http://127.0.0.1:9");
    ServerApi::configure(config);
    Transfer::setConfig(TransferConfigUserPath, QStringLiteral("3"));
    SubTaskInfo unknown;
    const bool found = Transfer::taskInfo(QStringLiteral("{no-such-task}"), unknown);
    const int live = Transfer::transferCount();
    std::printf("%s %d, %d live, found %d, server %s\n", errorCodeName(TargetExists), TargetExists, live,
                found ? 1 : 0, qPrintable(ServerApi::config().baseUrl));
    Transfer::deinit();
    ServerApi::shutdown();
    return !found && live == 0 ? 0 : 1;
}
