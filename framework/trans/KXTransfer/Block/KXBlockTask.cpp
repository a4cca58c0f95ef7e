#include "KXBlockTask.h"

#include "KXBlockJsonConvert.h"

#include <QMutexLocker>

#include <algorithm>

void BlockTaskFields::clear()
{
    sent = 0;
    total = 0;
    errorCode = 0;
    length = 0;
    loc = 0;
    idx = 0;
    errorMsg.clear();
    hash.clear();
    subTaskId.clear();
    taskId.clear();
    isUpload = false;
    quickTrans = false;
    state = BlockTaskStateNone;
}

void BlockTaskInfo::clear()
{
    BlockTaskFields::clear();
    subTaskInfo.clear();
}

CKXBlockTask::CKXBlockTask(const BlockTaskInfo& info)
    : m_fields(info), m_owner(std::make_shared<const SubTaskInfo>(info.subTaskInfo))
{
    storeHash(info.hash);
}

CKXBlockTask::CKXBlockTask(const BlockTaskFields& fields, std::shared_ptr<const SubTaskInfo> owner)
    : m_fields(fields), m_owner(std::move(owner))
{
    storeHash(fields.hash);
}

void CKXBlockTask::storeHash(const QString& hash)
{
    // Only a text that the digest gives back exactly (64 lower-case hex digits) is kept as one.
    const QByteArray text = hash.toLatin1();
    const QByteArray digest = QByteArray::fromHex(text);
    m_hasDigest = digest.size() == int(m_digest.size()) && digest.toHex() == text;
    if (m_hasDigest) {
        std::copy(digest.cbegin(), digest.cend(), m_digest.begin());
    }
    m_fields.hash = m_hasDigest ? QString() : hash;
}

QString CKXBlockTask::hashLocked() const
{
    if (!m_hasDigest) {
        return m_fields.hash;
    }
    return QString::fromLatin1(
        QByteArray::fromRawData(reinterpret_cast<const char*>(m_digest.data()), int(m_digest.size()))
            .toHex());
}

CKXBlockTask::~CKXBlockTask()
{
    clear();
}

void CKXBlockTask::clear()
{
    QMutexLocker lock(&m_mutex);
    m_fields.clear();
    m_owner.reset();
    m_hasDigest = false;
}

QString CKXBlockTask::ToJson() const
{
    return CKXBlockJsonConvert::BlockInfo2JsonString(getBlockTaskInfo());
}

bool CKXBlockTask::FromJson(const QString& json)
{
    BlockTaskInfo parsed;
    if (!CKXBlockJsonConvert::JsonString2BlockInfo(json, parsed)) {
        return false;
    }
    setBlockTaskInfo(parsed);
    return true;
}

bool CKXBlockTask::isSameTask(CKXBlockTask* other) const
{
    if (!other) {
        return false;
    }
    // One lock at a time, so two threads comparing the same pair in opposite order cannot deadlock.
    const QString otherId = other->taskId();
    return taskId() == otherId;
}

QString CKXBlockTask::taskId() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.taskId;
}

void CKXBlockTask::setTaskId(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.taskId = value;
}

QString CKXBlockTask::subTaskId() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.subTaskId;
}

void CKXBlockTask::setSubTaskId(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.subTaskId = value;
}

long long CKXBlockTask::length() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.length;
}

void CKXBlockTask::setLength(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.length = value;
}

long long CKXBlockTask::loc() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.loc;
}

void CKXBlockTask::setLoc(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.loc = value;
}

int CKXBlockTask::idx() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.idx;
}

void CKXBlockTask::setIdx(int value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.idx = value;
}

bool CKXBlockTask::isUpload() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.isUpload;
}

void CKXBlockTask::setIsUpload(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.isUpload = value;
}

int CKXBlockTask::errorCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.errorCode;
}

void CKXBlockTask::setErrorCode(int value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.errorCode = value;
}

int CKXBlockTask::statusCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.statusCode;
}

void CKXBlockTask::setStatusCode(int value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.statusCode = value;
}

QString CKXBlockTask::errorMsg() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.errorMsg;
}

void CKXBlockTask::setErrorMsg(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.errorMsg = value;
}

QString CKXBlockTask::hash() const
{
    QMutexLocker lock(&m_mutex);
    return hashLocked();
}

void CKXBlockTask::setHash(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    storeHash(value);
}

BlockTaskState CKXBlockTask::state() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.state;
}

void CKXBlockTask::setState(BlockTaskState value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.state = value;
}

long long CKXBlockTask::sent() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.sent;
}

void CKXBlockTask::setSent(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.sent = value;
}

long long CKXBlockTask::total() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.total;
}

void CKXBlockTask::setTotal(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.total = value;
}

bool CKXBlockTask::isQuickTrans() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.quickTrans;
}

void CKXBlockTask::setQuickTrans(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_fields.quickTrans = value;
}

SubTaskInfo CKXBlockTask::info() const
{
    std::shared_ptr<const SubTaskInfo> owner;
    {
        QMutexLocker lock(&m_mutex);
        owner = m_owner;
    }
    return owner ? *owner : SubTaskInfo();
}

void CKXBlockTask::setSubTaskInfo(const SubTaskInfo& value)
{
    setSharedSubTaskInfo(std::make_shared<const SubTaskInfo>(value));
}

void CKXBlockTask::setSharedSubTaskInfo(std::shared_ptr<const SubTaskInfo> value)
{
    QMutexLocker lock(&m_mutex);
    m_owner.swap(value);
}

BlockTaskInfo CKXBlockTask::getBlockTaskInfo() const
{
    BlockTaskInfo copy;
    std::shared_ptr<const SubTaskInfo> owner;
    {
        QMutexLocker lock(&m_mutex);
        static_cast<BlockTaskFields&>(copy) = m_fields;
        copy.hash = hashLocked();
        owner = m_owner;
    }
    if (owner) {
        copy.subTaskInfo = *owner;
    }
    return copy;
}

void CKXBlockTask::setBlockTaskInfo(const BlockTaskInfo& value)
{
    auto owner = std::make_shared<const SubTaskInfo>(value.subTaskInfo);
    QMutexLocker lock(&m_mutex);
    m_fields = value;
    storeHash(value.hash);
    m_owner.swap(owner);
}
