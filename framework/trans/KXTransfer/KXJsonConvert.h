#pragma once

#include "KXTransferDefine.h"

#include <QString>

// The JSON text of a SubTaskInfo, as stored in the sub_task_info column of the transfer
// database and handed out by the task store, and the flag text of a TaskState.
// Stateless; safe from any thread.
class CKXJsonConvert
{
public:
    // One compact object. Never fails. The password goes out only in protected form.
    static QString SubTaskInfo2JsonString(const SubTaskInfo& info);
    // False, with `out` untouched, when the text does not parse or is not an object. Otherwise
    // every field it reads is stored, missing numbers as -1 (see the .cpp for the exceptions).
    static bool JsonString2SubTaskInfo(const QString& json, SubTaskInfo& out);

    // 12 -> "StateWorking|StatePaused", 0 -> "StateNone"; bits without a name are dropped.
    static QString taskStateToString(TaskState state);
    // Any text holding "StateNone" is 0; otherwise the OR of every flag name it contains.
    static TaskState stringToTaskState(const QString& text);
};
