#include "KXServerPath.h"

#include <algorithm>
#include <cctype>

namespace KXServerPath {

namespace {

ServerError forbidden(const std::string& why)
{
    return ServerError::make(403, "forbidden", why);
}

bool containsEncodedSeparator(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* form : {"%2e", "%2f", "%5c", "%00"}) {
        if (text.find(form) != std::string::npos) {
            return true;
        }
    }
    return false;
}

ServerError checkComponent(const std::string& part)
{
    if (part.empty()) {
        return forbidden("empty path component");
    }
    if (part == "." || part == "..") {
        return forbidden("relative path component '" + part + "'");
    }
    if (part.size() > kMaxComponentBytes) {
        return ServerError::make(400, "path_too_long", "path component longer than 255 bytes");
    }
    return {};
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

} // namespace

ServerError normalise(const std::string& raw, std::string* out)
{
    if (raw.find('\0') != std::string::npos || raw.find('\\') != std::string::npos) {
        return forbidden("NUL or backslash in path");
    }
    if (containsEncodedSeparator(raw)) {
        return forbidden("percent-encoded dot, slash, backslash or NUL in path");
    }
    if (raw.size() > kMaxPathBytes) {
        return ServerError::make(400, "path_too_long", "path longer than 1024 bytes");
    }
    std::string path = (raw.empty() || raw[0] != '/') ? "/" + raw : raw;
    if (path == "/") {
        *out = path;
        return {};
    }
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        ServerError e = checkComponent(path.substr(start, end - start));
        if (!e.ok()) {
            return e;
        }
        start = end + 1;
    }
    *out = path;
    return {};
}

std::string decodeComponent(const std::string& raw, bool* ok)
{
    std::string out;
    *ok = true;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '%') {
            out.push_back(raw[i]);
            continue;
        }
        int hi = i + 2 < raw.size() ? hexValue(raw[i + 1]) : -1;
        int lo = hi >= 0 ? hexValue(raw[i + 2]) : -1;
        if (lo < 0) {
            *ok = false;
            return {};
        }
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

std::string parentOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return (slash == 0 || slash == std::string::npos) ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string join(const std::string& folder, const std::string& child)
{
    if (child.empty() || child == "/") {
        return folder;
    }
    std::string tail = child[0] == '/' ? child : "/" + child;
    return folder == "/" ? tail : folder + tail;
}

bool isInside(const std::string& root, const std::string& path)
{
    if (root == "/" || root == path) {
        return true;
    }
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/';
}

std::vector<std::string> ancestors(const std::string& path)
{
    std::vector<std::string> out;
    size_t pos = path.find('/', 1);
    while (pos != std::string::npos) {
        out.push_back(path.substr(0, pos));
        pos = path.find('/', pos + 1);
    }
    return out;
}

} // namespace KXServerPath
