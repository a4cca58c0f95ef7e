#include "KXResponseRecorder.h"

ServerApi::ResponseCallback KXResponseRecorder::onResponse()
{
    std::shared_ptr<KXResponseRecorder> self = shared_from_this();
    return [self](const ResponseData& response) {
        self->sawCallback("completion");
        std::lock_guard<std::mutex> lock(self->m_mutex);
        ++self->m_completions;
        self->m_response = response;
    };
}

ServerApi::DataCallback KXResponseRecorder::onData()
{
    std::shared_ptr<KXResponseRecorder> self = shared_from_this();
    return [self](const QByteArray& piece) {
        self->sawCallback("data");
        std::function<void(qint64)> hook;
        qint64 received = 0;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_data += piece;
            received = self->m_data.size();
            hook = self->m_dataHook;
        }
        if (hook)
            hook(received);
    };
}

ServerApi::DownloadProgressCallback KXResponseRecorder::onDownloadProgress()
{
    std::shared_ptr<KXResponseRecorder> self = shared_from_this();
    return [self](const DownloadProgressData& progress) {
        self->sawCallback("progress");
        self->sawProgress(progress.bytesReceived, progress.bytesTotal);
    };
}

ServerApi::UploadProgressCallback KXResponseRecorder::onUploadProgress()
{
    std::shared_ptr<KXResponseRecorder> self = shared_from_this();
    return [self](const UploadProgressData& progress) {
        self->sawCallback("progress");
        self->sawProgress(progress.bytesSent, progress.bytesTotal);
    };
}

void KXResponseRecorder::setDataHook(std::function<void(qint64)> hook)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_dataHook = std::move(hook);
}

void KXResponseRecorder::sawCallback(const char* kind)
{
    if (QThread::currentThread() == m_callerThread)
        violation(QStringLiteral("%1 callback on the caller's thread").arg(QLatin1String(kind)));
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_completions > 0)
        m_violations << QStringLiteral("%1 callback after the completion").arg(QLatin1String(kind));
}

void KXResponseRecorder::sawProgress(qint64 done, qint64 total)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_progress.isEmpty() && done < m_progress.last().first)
        m_violations
            << QStringLiteral("progress went back from %1 to %2").arg(m_progress.last().first).arg(done);
    m_progress << qMakePair(done, total);
}

void KXResponseRecorder::violation(const QString& what)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_violations << what;
}

int KXResponseRecorder::completions() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_completions;
}

ResponseData KXResponseRecorder::response() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_response;
}

QByteArray KXResponseRecorder::data() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_data;
}

QList<QPair<qint64, qint64>> KXResponseRecorder::progress() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_progress;
}

QStringList KXResponseRecorder::violations() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_violations;
}
