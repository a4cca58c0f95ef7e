#pragma once

// Collects everything the server-API library calls back for one request, from the library's
// thread, and notices callbacks that break its promises: a second completion, data or progress
// after the completion, progress that goes backwards, a callback on the caller's thread.
// Shared through std::shared_ptr by the test and the callbacks, so a failing test that returns
// early never leaves the library writing into a dead object.

#include "ServerApi.h"

#include <QByteArray>
#include <QList>
#include <QThread>

#include <memory>
#include <mutex>

class KXResponseRecorder : public std::enable_shared_from_this<KXResponseRecorder>
{
public:
    static std::shared_ptr<KXResponseRecorder> make() { return std::make_shared<KXResponseRecorder>(); }

    ServerApi::ResponseCallback onResponse();
    ServerApi::DataCallback onData();
    ServerApi::DownloadProgressCallback onDownloadProgress();
    ServerApi::UploadProgressCallback onUploadProgress();
    // Called on the library thread with each piece, after it has been recorded.
    void setDataHook(std::function<void(qint64 received)> hook);

    int completions() const;
    ResponseData response() const;
    QByteArray data() const;
    QList<QPair<qint64, qint64>> progress() const; // (done, total) in order
    // Promises broken so far, described; empty when all is well.
    QStringList violations() const;

private:
    void violation(const QString& what);
    void sawCallback(const char* kind);
    void sawProgress(qint64 done, qint64 total);

    mutable std::mutex m_mutex; // guards every member below
    QThread* m_callerThread = QThread::currentThread();
    int m_completions = 0;
    ResponseData m_response;
    QByteArray m_data;
    QList<QPair<qint64, qint64>> m_progress;
    QStringList m_violations;
    std::function<void(qint64)> m_dataHook;
};
