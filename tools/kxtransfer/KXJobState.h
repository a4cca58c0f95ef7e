#pragma once

// What the engine's callbacks report about one transfer, handed from the transfer's threads to
// the main thread that waits for it. Shared through std::shared_ptr by the callback registry and
// the runner, so a callback arriving late never touches a freed object. One mutex guards every
// member; no call leaves this object while it is held.

#include "KXTransferDefine.h"

#include <QMutex>
#include <QWaitCondition>

#include <memory>

class QThread;

class CKXJobState : public std::enable_shared_from_this<CKXJobState>
{
public:
    // Engine callbacks, on the engine's threads.
    void onProgress(const SubTaskInfo& task, qint64 bytes);
    void onFinished(const SubTaskInfo& task, ErrorCode code);

    qint64 progressBytes() const;
    // The size the engine works with: for a plain address it is learnt during the download.
    qint64 knownSize() const;
    // true once the final callback has come; waits up to ms for it.
    bool waitFinished(int ms);
    // true once the transfer's thread has left its run (so its last database write is done).
    bool waitThreadDone(int ms);
    SubTaskInfo finalTask() const;
    ErrorCode finalCode() const;

private:
    void watchThread(QThread* thread);
    void markThreadDone();

    mutable QMutex m_mutex;
    QWaitCondition m_changed;
    qint64 m_bytes = 0;
    qint64 m_size = 0;
    bool m_finished = false;
    bool m_threadDone = false;
    SubTaskInfo m_final;
    ErrorCode m_code = NoError;
};
