#include "KXJsonConvert.h"

#include "KXJsonUtil.h"
#include "KXUtil.h"

#include <rapidjson/document.h>

namespace {

using JsonWriter = CKXJsonUtil::JsonWriter;
using J = CKXJsonUtil;

const CKXFlagNames& stateNames()
{
    static const CKXFlagNames names(StateNone, "StateNone",
                                    {
                                        {StateWaitPreparing, "StateWaitPreparing"},
                                        {StatePreparing, "StatePreparing"},
                                        {StateWorking, "StateWorking"},
                                        {StatePaused, "StatePaused"},
                                        {StateWaiting, "StateWaiting"},
                                        {StateError, "StateError"},
                                        {StateCompleted, "StateCompleted"},
                                        {StateStop, "StateStop"},
                                    });
    return names;
}

// Integers missing from a stored text read as -1, so "never set" stays visible as such.
constexpr int kMissingInt = -1;

void writeTaskFields(JsonWriter& w, const SubTaskInfo& info)
{
    J::writeString(w, "subtask_id", info.subTaskId);
    J::writeString(w, "task_id", info.taskId);
    J::writeInt64(w, "size", info.size);
    J::writeInt64(w, "send_bytes", info.sendBytes);
    J::writeInt64(w, "complete_bytes", info.completeBytes);
    J::writeInt64(w, "used_time", info.usedTime);
    J::writeInt64(w, "complete_time", info.completeTime);
    J::writeInt(w, "priority", info.priority);
    J::writeString(w, "state", CKXJsonConvert::taskStateToString(info.state));
    J::writeInt(w, "error_code", info.errorCode);
    J::writeString(w, "error_info", info.errorInfo);
    J::writeInt(w, "transmethod", info.transMethod);
    J::writeInt(w, "rsyncstate", info.rsyncState);
    J::writeInt(w, "task_source", info.taskSource);
    J::writeString(w, "data_server", info.dataServerHost);
    J::writeBool(w, "is_upload", info.isUpload);
    J::writeBool(w, "is_folder", info.isFolder);
    J::writeBool(w, "is_sectrans", info.isQuickTrans);
    J::writeString(w, "finger_mark", info.fingerMark);
    J::writeBool(w, "is_main_subtask", info.isMainSubTask);
    J::writeBool(w, "is_virus", info.isVirus);
    J::writeBool(w, "is_chunck_complete", info.isChunckComplete);
    // Written a second time on purpose: stored texts have it twice and must compare equal.
    J::writeString(w, "data_server", info.dataServerHost);
    J::writeInt64(w, "time_retry", info.timeRetry);
    J::writeInt(w, "http_code", info.httpCode);
    J::writeInt(w, "retry_times", info.retryTimes);
}

void writeOptionalFields(JsonWriter& w, const SubTaskInfo& info)
{
    if (!info.newVaultPath.isEmpty()) {
        J::writeString(w, "new_vault_path", info.newVaultPath);
    }
    if (info.isUpload && !info.newMetadata.isEmpty()) {
        J::writeString(w, "new_metadata", info.newMetadata);
    }
    if (!info.password.isEmpty()) {
        J::writeString(w, "pass", KXUtil::simpleEncrypt(info.password));
    }
}

void writeDelivery(JsonWriter& w, const DeliveryInfo& d)
{
    J::writeString(w, "delivery_code", d.code);
    J::writeString(w, "delivery_host", d.host);
    J::writeString(w, "delivery_overwrite", d.overwrite);
    J::writeString(w, "delivery_token", d.token);
    J::writeString(w, "delivery_LBC", d.lbc);
    J::writeString(w, "delivery_url", d.url);
    J::writeString(w, "delivery_session_id", d.sessionId);
    J::writeString(w, "delivery_S", d.s);
    J::writeString(w, "delivery_user_id", d.userId);
    J::writeBool(w, "delivery_isUpload", d.isUpload);
}

void writeVaultFile(JsonWriter& w, const RemoteFileInfo& r)
{
    w.Key("vault_file");
    w.StartObject();
    J::writeString(w, "path", r.path);
    J::writeString(w, "pathtype", r.pathType);
    J::writeString(w, "neid", r.neid);
    J::writeString(w, "prefixneid", r.prefixNeid);
    J::writeString(w, "from", r.from);
    J::writeString(w, "rev", r.rev);
    J::writeBool(w, "sync_overwrite", r.syncOverwrite);
    J::writeBool(w, "isEstcrypt", r.isEncrypted);
    J::writeInt(w, "nEstHead", r.estHeadLength);
    J::writeBool(w, "bCanDownloadVirus", r.canDownloadVirus);
    J::writeBool(w, "is_from_Url", r.isFromUrl);
    J::writeBool(w, "is_direct_url", r.isDirectUrl);
    J::writeString(w, "download_url", r.downloadUrl);
    J::writeString(w, "zip_psw", r.zipPassword);
    J::writeString(w, "modify_time", r.modifyTime);
    J::writeBool(w, "isDeliveryTrans", r.isDeliveryTrans);
    writeDelivery(w, r.delivery);
    J::writeInt64(w, "size", r.size);
    // An integer, not a JSON bool: that is how stored rows carry it.
    J::writeInt(w, "is_dir", r.isDir ? 1 : 0);
    J::writeString(w, "delivery_rev", r.delivery.rev);
    J::writeBool(w, "delivery_is_dir", r.delivery.isDir);
    J::writeInt64(w, "delivery_bytes", r.delivery.bytes);
    w.EndObject();
}

void writeLocalFile(JsonWriter& w, const LocalFileInfo& l, bool isFolder)
{
    w.Key("local_file");
    w.StartObject();
    J::writeString(w, "path", l.path);
    J::writeString(w, "time", l.time);
    if (!isFolder) {
        J::writeInt64(w, "size", l.size);
    }
    w.EndObject();
}

void readTaskFields(const rapidjson::Value& o, SubTaskInfo& out)
{
    out.taskId = J::getString(o, "task_id");
    out.subTaskId = J::getString(o, "subtask_id");
    out.size = J::getInt64(o, "size", kMissingInt);
    out.sendBytes = J::getInt64(o, "send_bytes", kMissingInt);
    out.completeBytes = J::getInt64(o, "complete_bytes", kMissingInt);
    out.usedTime = J::getInt64(o, "used_time", kMissingInt);
    out.completeTime = J::getInt64(o, "complete_time", kMissingInt);
    out.priority = J::getInt(o, "priority", kMissingInt);
    out.state = CKXJsonConvert::stringToTaskState(J::getString(o, "state"));
    out.errorCode = static_cast<ErrorCode>(J::getInt(o, "error_code", kMissingInt));
    out.errorInfo = J::getString(o, "error_info");
    out.httpCode = J::getInt(o, "http_code", kMissingInt);
    out.retryTimes = J::getInt(o, "retry_times", kMissingInt);
    // These three keep the record's value when the text lacks them (or holds no number).
    out.transMethod = static_cast<TaskTransferMethod>(J::getInt(o, "transmethod", out.transMethod));
    out.rsyncState = static_cast<RSyncTransferState>(J::getInt(o, "rsyncstate", out.rsyncState));
    out.taskSource = static_cast<TaskSource>(J::getInt(o, "task_source", out.taskSource));
    out.password = J::member(o, "pass") ? KXUtil::simpleDecrypt(J::getString(o, "pass")) : QString();
    out.newVaultPath = J::getString(o, "new_vault_path");
    out.newMetadata = J::getString(o, "new_metadata");
    out.dataServerHost = J::getString(o, "data_server");
    out.isUpload = J::getBool(o, "is_upload");
    out.isFolder = J::getBool(o, "is_folder");
    out.isQuickTrans = J::getBool(o, "is_sectrans");
    out.fingerMark = J::getString(o, "finger_mark");
    out.isMainSubTask = J::getBool(o, "is_main_subtask");
    out.isVirus = J::getBool(o, "is_virus");
    out.isChunckComplete = J::getBool(o, "is_chunck_complete");
    out.timeRetry = J::getInt64(o, "time_retry", kMissingInt);
}

void readVaultFile(const rapidjson::Value& v, RemoteFileInfo& r)
{
    r.path = J::getString(v, "path");
    r.pathType = J::getString(v, "pathtype");
    r.neid = J::getString(v, "neid");
    r.prefixNeid = J::getString(v, "prefixneid");
    r.from = J::getString(v, "from");
    r.rev = J::getString(v, "rev");
    r.syncOverwrite = J::getBool(v, "sync_overwrite");
    r.isEncrypted = J::getBool(v, "isEstcrypt");
    r.estHeadLength = J::getInt(v, "nEstHead", kMissingInt);
    r.canDownloadVirus = J::getBool(v, "bCanDownloadVirus");
    r.isFromUrl = J::getBool(v, "is_from_Url");
    r.isDirectUrl = J::getBool(v, "is_direct_url");
    r.downloadUrl = J::getString(v, "download_url");
    r.zipPassword = J::getString(v, "zip_psw");
    r.modifyTime = J::getString(v, "modify_time");
    r.isDeliveryTrans = J::getBool(v, "isDeliveryTrans");
    DeliveryInfo& d = r.delivery;
    d.code = J::getString(v, "delivery_code");
    d.host = J::getString(v, "delivery_host");
    d.overwrite = J::getString(v, "delivery_overwrite");
    d.token = J::getString(v, "delivery_token");
    d.lbc = J::getString(v, "delivery_LBC");
    d.url = J::getString(v, "delivery_url");
    d.sessionId = J::getString(v, "delivery_session_id");
    d.s = J::getString(v, "delivery_S");
    d.userId = J::getString(v, "delivery_user_id");
    d.isUpload = J::getBool(v, "delivery_isUpload");
    r.size = J::getInt64(v, "size", kMissingInt);
    r.isDir = J::getBool(v, "is_dir");
    d.rev = J::getString(v, "delivery_rev");
    d.isDir = J::getBool(v, "delivery_is_dir");
    d.bytes = J::getInt64(v, "delivery_bytes", kMissingInt);
}

void readLocalFile(const rapidjson::Value& v, LocalFileInfo& l, bool isFolder)
{
    l.path = J::getString(v, "path");
    l.time = J::getString(v, "time");
    // A folder has no size of its own in the text; keep whatever the record holds.
    if (!isFolder) {
        l.size = J::getInt64(v, "size", kMissingInt);
    }
}

} // namespace

QString CKXJsonConvert::SubTaskInfo2JsonString(const SubTaskInfo& info)
{
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writeTaskFields(writer, info);
    writeOptionalFields(writer, info);
    writeVaultFile(writer, info.remoteFile);
    writeLocalFile(writer, info.localFile, info.isFolder);
    writer.EndObject();
    return QString::fromUtf8(buffer.GetString(), static_cast<int>(buffer.GetSize()));
}

bool CKXJsonConvert::JsonString2SubTaskInfo(const QString& json, SubTaskInfo& out)
{
    rapidjson::Document doc;
    if (!CKXJsonUtil::parseObject(json, doc)) {
        return false;
    }
    readTaskFields(doc, out);
    // A text without these objects leaves the record's remote and local parts as they were.
    if (const rapidjson::Value* vault = J::member(doc, "vault_file"); vault && vault->IsObject()) {
        readVaultFile(*vault, out.remoteFile);
    }
    if (const rapidjson::Value* local = J::member(doc, "local_file"); local && local->IsObject()) {
        readLocalFile(*local, out.localFile, out.isFolder);
    }
    return true;
}

QString CKXJsonConvert::taskStateToString(TaskState state)
{
    return stateNames().toString(state);
}

TaskState CKXJsonConvert::stringToTaskState(const QString& text)
{
    return static_cast<TaskState>(stateNames().fromString(text));
}
