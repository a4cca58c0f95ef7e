#pragma once

#include "KXTransferDefine.h"

#include <QMutex>
#include <QString>
#include <QtGlobal>

#include <array>
#include <memory>

// Block state flags.
enum BlockTaskState : qint32
{
    BlockTaskStateNone = 1, // new, never started
    BlockTaskStateWorking = 2,
    BlockTaskStatePaused = 4,
    BlockTaskStateError = 8,
    BlockTaskStateCompleted = 16,
};

// The fields a block has of its own: everything of its record but the owning task's.
struct BlockTaskFields
{
    long long sent = 0;  // bytes moved in the current attempt
    long long total = 0; // bytes to move in the current attempt
    int errorCode = 0;   // ErrorCode of the last failure
    QString errorMsg;
    int statusCode = 0; // status of the last server answer; not part of the JSON text
    long long length = 0;
    long long loc = 0; // offset of the block's first byte in the file
    int idx = -1;      // number of the block within the file, from 0
    QString hash;      // lower-case hex SHA-256 of the block's bytes
    QString subTaskId;
    QString taskId; // the block's own id
    bool isUpload = false;
    bool quickTrans = false; // the server already held the block; no bytes were sent
    BlockTaskState state = BlockTaskStateNone;

    // Back to an empty block, except that idx becomes 0 (not -1) and statusCode is kept: a
    // cleared block must still report the answer that ended it.
    void clear();
};

// One block of a chunked transfer, as a plain value.
struct BlockTaskInfo : BlockTaskFields
{
    SubTaskInfo subTaskInfo; // the owning task's record; not part of the JSON text

    // BlockTaskFields::clear, and an empty owning record.
    void clear();
};

// One block behind its own mutex, so the op-queue thread can read a block while its transfer
// thread updates it. Created with new by the block builder or the database loader; owned and
// deleted by the chunked transfer; the block queues only hold pointers. m_mutex guards m_fields,
// m_owner, m_digest and m_hasDigest and is never held while calling out; no operation holds two
// blocks' locks at once.
//
// The owning task's record is most of a block's size, and every block of a task holds the same
// one: blocks given one shared record (setSharedSubTaskInfo) keep a single immutable copy between
// them, so a 16 GiB file's 4,096 blocks do not hold 4,096 copies. Setting a record replaces the
// block's pointer and never changes the record the other blocks see.
//
// For the same reason a hash of 64 lower-case hex digits, the form every block's hash has, is
// kept as its 32 bytes and written out again when asked for; any other text is kept as it is.
class CKXBlockTask
{
public:
    CKXBlockTask() = default;
    explicit CKXBlockTask(const BlockTaskInfo& info);
    CKXBlockTask(const BlockTaskFields& fields, std::shared_ptr<const SubTaskInfo> owner);
    ~CKXBlockTask();
    CKXBlockTask(const CKXBlockTask&) = delete;
    CKXBlockTask& operator=(const CKXBlockTask&) = delete;

    QString taskId() const;
    void setTaskId(const QString& id);
    QString subTaskId() const;
    void setSubTaskId(const QString& id);
    long long length() const;
    void setLength(long long length);
    long long loc() const;
    void setLoc(long long loc);
    int idx() const;
    void setIdx(int idx);
    bool isUpload() const;
    void setIsUpload(bool value);
    int errorCode() const;
    void setErrorCode(int code);
    int statusCode() const;
    void setStatusCode(int code);
    QString errorMsg() const;
    void setErrorMsg(const QString& msg);
    QString hash() const;
    void setHash(const QString& hash);
    BlockTaskState state() const;
    void setState(BlockTaskState state);
    long long sent() const;
    void setSent(long long sent);
    long long total() const;
    void setTotal(long long total);
    bool isQuickTrans() const;
    void setQuickTrans(bool value);

    SubTaskInfo info() const;
    void setSubTaskInfo(const SubTaskInfo& info);
    void setSharedSubTaskInfo(std::shared_ptr<const SubTaskInfo> info);
    BlockTaskInfo getBlockTaskInfo() const;
    void setBlockTaskInfo(const BlockTaskInfo& info);
    void clear();

    QString ToJson() const;
    // Replaces the record only when the text parses as a JSON object (the owning task's record
    // is then replaced by an empty one, as the text does not carry it); returns whether it did.
    bool FromJson(const QString& json);

    // Whether both blocks carry the same id. Takes one lock at a time.
    bool isSameTask(CKXBlockTask* other) const;

private:
    // With m_mutex held: the hash into m_digest, or into m_fields.hash if it is not a digest.
    void storeHash(const QString& hash);
    QString hashLocked() const;

    mutable QMutex m_mutex;
    BlockTaskFields m_fields;                   // its hash empty while m_hasDigest
    std::shared_ptr<const SubTaskInfo> m_owner; // null reads as an empty record
    std::array<quint8, 32> m_digest{};
    bool m_hasDigest = false;
};
