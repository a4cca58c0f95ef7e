#include "KXEventLog.h"

#include <QJsonDocument>

#include <fcntl.h>
#include <unistd.h>

CKXEventLog::CKXEventLog(std::string path) : m_path(std::move(path)) {}

bool CKXEventLog::append(const QJsonObject& event)
{
    QByteArray line = QJsonDocument(event).toJson(QJsonDocument::Compact) + '\n';
    std::lock_guard<std::mutex> lock(m_mutex);
    int fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = ::write(fd, line.constData(), static_cast<size_t>(line.size())) == line.size();
    ok = ::fdatasync(fd) == 0 && ok;
    ::close(fd);
    return ok;
}
