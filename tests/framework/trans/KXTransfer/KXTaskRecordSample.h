#pragma once

// A stored task record with every persisted field away from its default, exactly as the engine
// writes it (key order, the doubled "data_server" and the masked password included), shared by
// the task, block and database tests.

#include "KXJsonConvert.h"

#include <QStringList>

inline QString sampleTaskText()
{
    return QStringLiteral(
        R"({"subtask_id":"sub-01","task_id":"task-01","size":9000000001,"send_bytes":4194304,)"
        R"("complete_bytes":2097152,"used_time":37,"complete_time":1700000000123,"priority":9,)"
        R"("state":"StateWorking|StatePaused","error_code":20009,)"
        R"("error_info":"磁盘空间不足 \"No space left on device\"",)"
        R"("transmethod":2,"rsyncstate":3,"task_source":7,"data_server":"dc1.example.net",)"
        R"("is_upload":true,"is_folder":false,"is_sectrans":true,"finger_mark":"fp-ab",)"
        R"("is_main_subtask":true,"is_virus":true,"is_chunck_complete":true,"data_server":"dc1.example.net",)"
        R"("time_retry":5,"http_code":507,"retry_times":2,"new_vault_path":"/团队/报告 (1).docx",)"
        R"("new_metadata":"{\"rev\":\"7\",\"名\":\"x\"}","pass":"kx1.0GJpvZh1nYd0mTGxjQESJKo3rxbc",)"
        R"("vault_file":{"path":"/团队/报告.docx","pathtype":"ent","neid":"1001","prefixneid":"1000",)"
        R"("from":"share","rev":"r42","sync_overwrite":true,"isEstcrypt":true,"nEstHead":64,)"
        R"("bCanDownloadVirus":true,"is_from_Url":true,"is_direct_url":true,)"
        R"("download_url":"https://example.net/d?a=1&b=\"2\"",)"
        R"("zip_psw":"zip密码","modify_time":"2024-05-06 07:08:09","isDeliveryTrans":true,)"
        R"("delivery_code":"code1","delivery_host":"share.example.net","delivery_overwrite":"rename",)"
        R"("delivery_token":"tok","delivery_LBC":"lbc1","delivery_url":"https://share.example.net/x",)"
        R"("delivery_session_id":"sess","delivery_S":"s-param","delivery_user_id":"u77",)"
        R"("delivery_isUpload":true,"size":123456789,"is_dir":1,"delivery_rev":"dr3",)"
        R"("delivery_is_dir":true,"delivery_bytes":31337},"local_file":{"path":"/home/用户/报告.docx",)"
        R"("time":"1714979289","size":9000000001}})");
}

// The persisted part of a record: two records agree on it when these texts are equal.
inline QString persisted(const SubTaskInfo& info)
{
    return CKXJsonConvert::SubTaskInfo2JsonString(info);
}

inline SubTaskInfo sampleSubTaskInfo()
{
    SubTaskInfo t;
    CKXJsonConvert::JsonString2SubTaskInfo(sampleTaskText(), t);
    // Not persisted, but carried by copies.
    t.reservedCount = 11;
    t.partSizes = {4194304, 4194304, 17};
    t.remoteFile.reservedText1 = QStringLiteral("r1");
    return t;
}
