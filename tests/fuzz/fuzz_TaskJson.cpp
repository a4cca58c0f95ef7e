// The reader of a task's stored JSON text over any text a damaged database row can hold. What it
// accepts must survive being written and read again: the row a task is saved to is the row it
// resumes from.

#include "KXFuzzHome.h"
#include "KXJsonConvert.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    CKXJsonConvert::stringToTaskState(text);
    SubTaskInfo first;
    if (!CKXJsonConvert::JsonString2SubTaskInfo(text, first)) {
        return 0;
    }
    const QString written = CKXJsonConvert::SubTaskInfo2JsonString(first);
    SubTaskInfo second;
    KX_FUZZ_CHECK(CKXJsonConvert::JsonString2SubTaskInfo(written, second));
    KX_FUZZ_CHECK(CKXJsonConvert::SubTaskInfo2JsonString(second) == written);
    KX_FUZZ_CHECK(CKXJsonConvert::stringToTaskState(CKXJsonConvert::taskStateToString(first.state)) ==
                  TaskState(first.state & 0xff));
    return 0;
}
