// The reader of a block's stored JSON text over any text a damaged database row can hold. The
// writer's text must always be readable again, and one more write and read changes nothing (the
// two forms are not symmetric: the first pass may drop what the writer does not keep).

#include "KXBlockJsonConvert.h"
#include "KXFuzzHome.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    CKXBlockJsonConvert::stringToTaskState(text);
    BlockTaskInfo first;
    if (!CKXBlockJsonConvert::JsonString2BlockInfo(text, first)) {
        return 0;
    }
    BlockTaskInfo second;
    const QString once = CKXBlockJsonConvert::BlockInfo2JsonString(first);
    KX_FUZZ_CHECK(CKXBlockJsonConvert::JsonString2BlockInfo(once, second));
    BlockTaskInfo third;
    const QString twice = CKXBlockJsonConvert::BlockInfo2JsonString(second);
    KX_FUZZ_CHECK(CKXBlockJsonConvert::JsonString2BlockInfo(twice, third));
    KX_FUZZ_CHECK(CKXBlockJsonConvert::BlockInfo2JsonString(third) == twice);
    return 0;
}
