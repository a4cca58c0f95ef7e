#include "KXHttpUtil.h"

#include "core/KXSha256.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <httplib.h>

#include <algorithm>
#include <cctype>

#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace KXHttp {

namespace {

ServerError badField(const char* key, const char* what)
{
    return ServerError::make(400, "bad request", std::string("\"") + key + "\" must be " + what);
}

} // namespace

bool endpoint(int fd, bool peer, std::string* address, int* port)
{
    sockaddr_storage addr{};
    socklen_t length = sizeof addr;
    int rc = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &length)
                  : ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
    if (rc != 0) {
        return false;
    }
    if (addr.ss_family == AF_INET) {
        *port = ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    } else if (addr.ss_family == AF_INET6) {
        *port = ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
    } else {
        return false;
    }
    char text[NI_MAXHOST] = {};
    if (::getnameinfo(reinterpret_cast<sockaddr*>(&addr), length, text, sizeof text, nullptr, 0,
                      NI_NUMERICHOST) != 0) {
        return false;
    }
    *address = text;
    return true;
}

std::string cookie(const httplib::Request& req, const std::string& name)
{
    size_t count = req.get_header_value_count("Cookie");
    for (size_t i = 0; i < count; ++i) {
        std::string header = req.get_header_value("Cookie", i);
        size_t pos = 0;
        while (pos < header.size()) {
            size_t end = header.find(';', pos);
            std::string piece = header.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
            size_t first = piece.find_first_not_of(' ');
            if (first != std::string::npos && piece.compare(first, name.size() + 1, name + "=") == 0) {
                return piece.substr(first + name.size() + 1);
            }
            pos = end == std::string::npos ? header.size() : end + 1;
        }
    }
    return {};
}

bool dropConnection(const httplib::Request& req)
{
    // httplib does not hand the socket to handlers; find it by its two endpoints instead. The
    // connection belongs to the calling thread, so the descriptor cannot change meanwhile.
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) {
        return false;
    }
    bool dropped = false;
    while (dirent* entry = ::readdir(dir)) {
        int fd = std::atoi(entry->d_name);
        std::string local;
        std::string remote;
        int localPort = 0;
        int remotePort = 0;
        if (fd > 2 && endpoint(fd, false, &local, &localPort) && localPort == req.local_port &&
            endpoint(fd, true, &remote, &remotePort) && remotePort == req.remote_port &&
            remote == req.remote_addr) {
            dropped = ::shutdown(fd, SHUT_RDWR) == 0;
            break;
        }
    }
    ::closedir(dir);
    return dropped;
}

ServerError framingError(const httplib::Request& req)
{
    size_t lengths = req.get_header_value_count("Content-Length");
    std::string length = req.get_header_value("Content-Length");
    bool digits =
        !length.empty() && length.size() < 19 &&
        std::all_of(length.begin(), length.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    for (size_t i = 1; i < lengths; ++i) {
        digits = digits && req.get_header_value("Content-Length", i) == length;
    }
    if (lengths > 0 && !digits) {
        return ServerError::make(400, "bad request", "Content-Length headers that differ or do not parse");
    }
    size_t codings = req.get_header_value_count("Transfer-Encoding");
    if (codings > 0 && lengths > 0) {
        return ServerError::make(400, "bad request", "Content-Length together with Transfer-Encoding");
    }
    if (codings > 1 ||
        (codings == 1 && QString::fromStdString(req.get_header_value("Transfer-Encoding"))
                                 .trimmed()
                                 .compare(QLatin1String("chunked"), Qt::CaseInsensitive) != 0)) {
        return ServerError::make(400, "bad request", "only the chunked Transfer-Encoding is understood");
    }
    if (codings == 0 && lengths == 0 && (req.method == "POST" || req.method == "PUT")) {
        return ServerError::make(411, "bad request", "a request body needs a Content-Length");
    }
    return {};
}

QJsonObject errorBody(const ServerError& error)
{
    return QJsonObject{{"code", QString::fromStdString(error.code)},
                       {"message", QString::fromStdString(error.message)},
                       {"msgcode", QStringLiteral("E%1").arg(error.status)},
                       {"state", error.status},
                       {"type", QStringLiteral("error")}};
}

std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

ServerError string(const QJsonObject& body, const char* key, std::string* out, const std::string& fallback)
{
    QJsonValue value = body.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull()) {
        *out = fallback;
    } else if (value.isString()) {
        *out = value.toString().toStdString();
    } else {
        return badField(key, "a string");
    }
    return {};
}

ServerError integer(const QJsonObject& body, const char* key, qint64* out, bool required)
{
    QJsonValue value = body.value(QLatin1String(key));
    bool ok = false;
    if (value.isDouble() && value.toDouble() >= 0 && value.toDouble() <= 9.0e15) {
        *out = static_cast<qint64>(value.toDouble());
        ok = static_cast<double>(*out) == value.toDouble();
    } else if (value.isString()) {
        *out = value.toString().toLongLong(&ok);
        ok = ok && *out >= 0;
    } else if (value.isUndefined() && !required) {
        *out = 0;
        ok = true;
    }
    return ok ? ServerError() : badField(key, "a non-negative integer");
}

ServerError boolean(const QJsonObject& body, const char* key, bool* out, bool fallback)
{
    QJsonValue value = body.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull()) {
        *out = fallback;
    } else if (value.isBool()) {
        *out = value.toBool();
    } else if (value.isString()) {
        *out = isTrue(value.toString().toStdString());
    } else {
        return badField(key, "true or false");
    }
    return {};
}

ServerError hashList(const QJsonObject& body, const char* key, std::vector<std::string>* out)
{
    QJsonValue value = body.value(QLatin1String(key));
    if (!value.isArray()) {
        return badField(key, "an array of SHA-256 hex strings");
    }
    for (const QJsonValue& item : value.toArray()) {
        std::string hash = item.toString().toLower().toStdString();
        if (!CKXSha256::isHexDigest(hash)) {
            return badField(key, "an array of SHA-256 hex strings");
        }
        out->push_back(hash);
    }
    return {};
}

bool isTrue(const std::string& text)
{
    QString value = QString::fromStdString(text).trimmed().toLower();
    return value == QLatin1String("true") || value == QLatin1String("1");
}

} // namespace KXHttp
