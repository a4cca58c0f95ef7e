#pragma once

// Asks the server about one remote entry (its size, whether it is a folder, its revision) before
// a download, so the engine can choose whole-file or block transfer from the size. Blocks the
// calling thread until the answer is in; Ctrl-C aborts the request. Failures end as an engine
// error code and message, mapped from the server's answer the way the engine maps them.

#include "ServerApi.h"

#include <QList>
#include <QString>

#include <functional>

struct KXRemoteEntry
{
    qint64 size = 0;
    bool isDir = false;
    QString rev;
    QString path;        // as the server names it (listings)
    qint64 modified = 0; // seconds since the epoch; 0 when not told

    // The last part of path: the entry's name inside its folder.
    QString name() const { return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1); }
};

class CKXRemoteMeta
{
public:
    bool fetch(const QString& remotePath, KXRemoteEntry& out);
    // The file behind a share link (link.path inside the share; empty for a link to one file).
    // Share links have no metadata request: the answer to its first byte tells the size.
    bool fetchShared(const KXServerApiDeliveryDataModel& link, KXRemoteEntry& out);
    // The entries directly inside a folder, page by page through the metadata listing.
    bool list(const QString& folder, QList<KXRemoteEntry>& out);

    int errorCode() const { return m_code; }
    QString errorMessage() const { return m_message; }
    bool interrupted() const { return m_interrupted; }

    // The engine's code for a failed answer (HTTP status, body, transport error).
    static int mapError(const ResponseData& response, QString& message);

private:
    // Starts a request through `start` and waits for its answer; false when Ctrl-C cut it short.
    bool await(const std::function<qint64(ServerApi::ResponseCallback)>& start, ResponseData& response);
    bool failed(const ResponseData& response);
    bool listPage(const QString& folder, qint64 offset, QList<KXRemoteEntry>& out, int& count);

    int m_code = 0;
    QString m_message;
    bool m_interrupted = false;
};
