#include "KXBlockJsonConvert.h"

#include "KXJsonUtil.h"

#include <rapidjson/document.h>

namespace {

using J = CKXJsonUtil;

const CKXFlagNames& blockStateNames()
{
    static const CKXFlagNames names(BlockTaskStateNone, "BlockTaskStateNone",
                                    {
                                        {BlockTaskStateWorking, "BlockTaskStateWorking"},
                                        {BlockTaskStatePaused, "BlockTaskStatePaused"},
                                        {BlockTaskStateError, "BlockTaskStateError"},
                                        {BlockTaskStateCompleted, "BlockTaskStateCompleted"},
                                    });
    return names;
}

// Numbers missing from a stored block read as -1.
constexpr int kMissingInt = -1;

} // namespace

QString CKXBlockJsonConvert::BlockInfo2JsonString(const BlockTaskInfo& info)
{
    rapidjson::StringBuffer buffer;
    CKXJsonUtil::JsonWriter w(buffer);
    w.StartObject();
    J::writeString(w, "id", info.taskId);
    J::writeString(w, "sub_task_id", info.subTaskId);
    J::writeBool(w, "isupload", info.isUpload);
    J::writeBool(w, "is_quick_trans", info.quickTrans);
    J::writeString(w, "state", taskStateToString(info.state));
    J::writeInt64(w, "length", info.length);
    J::writeInt64(w, "loc", info.loc);
    J::writeInt(w, "idx", info.idx);
    J::writeString(w, "hash", info.hash);
    J::writeInt(w, "error_code", info.errorCode);
    J::writeString(w, "error_info", info.errorMsg);
    J::writeInt64(w, "sent", info.sent);
    J::writeInt64(w, "total", info.total);
    // The flag goes out twice; readers only ever look at "is_upload".
    J::writeBool(w, "is_upload", info.isUpload);
    w.EndObject();
    return QString::fromUtf8(buffer.GetString(), static_cast<int>(buffer.GetSize()));
}

bool CKXBlockJsonConvert::JsonString2BlockInfo(const QString& json, BlockTaskInfo& out)
{
    rapidjson::Document doc;
    if (!CKXJsonUtil::parseObject(json, doc)) {
        return false;
    }
    out.taskId = J::getString(doc, "id");
    out.subTaskId = J::getString(doc, "sub_task_id");
    out.state = stringToTaskState(J::getString(doc, "state"));
    out.isUpload = J::getBool(doc, "is_upload");
    out.sent = J::getInt64(doc, "sent", kMissingInt);
    out.total = J::getInt64(doc, "total", kMissingInt);
    out.errorCode = J::getInt(doc, "error_code", kMissingInt);
    // The writer uses "error_info", so a stored message does not come back; rows depend on that.
    out.errorMsg = J::getString(doc, "error_msg");
    out.length = J::getInt64(doc, "length", kMissingInt);
    out.loc = J::getInt64(doc, "loc", kMissingInt);
    out.idx = J::getInt(doc, "idx", kMissingInt);
    out.hash = J::getString(doc, "hash");
    out.quickTrans = J::getBool(doc, "is_quick_trans");
    return true;
}

QString CKXBlockJsonConvert::taskStateToString(BlockTaskState state)
{
    return blockStateNames().toString(state);
}

BlockTaskState CKXBlockJsonConvert::stringToTaskState(const QString& text)
{
    return static_cast<BlockTaskState>(blockStateNames().fromString(text));
}
