#pragma once

#include "KXBlockTask.h"

#include <QString>

// The JSON text of a block, as stored in the block_v1 table, and the flag text of a block state.
// Writer and reader are not symmetric, and must stay so because stored rows carry this form:
// the message is written as "error_info" but read from "error_msg", the upload flag is written
// as both "isupload" and "is_upload" and read from "is_upload" only, and neither the status code
// nor the owning task's record is in the text. Stateless; safe from any thread.
class CKXBlockJsonConvert
{
public:
    static QString BlockInfo2JsonString(const BlockTaskInfo& info);
    // False, with `out` untouched, when the text does not parse or is not an object.
    static bool JsonString2BlockInfo(const QString& json, BlockTaskInfo& out);

    // 1 alone -> "BlockTaskStateNone"; otherwise the names of bits 2..16 joined by "|".
    static QString taskStateToString(BlockTaskState state);
    // Any text holding "BlockTaskStateNone" is 1; otherwise the sum of the names it contains.
    static BlockTaskState stringToTaskState(const QString& text);
};
