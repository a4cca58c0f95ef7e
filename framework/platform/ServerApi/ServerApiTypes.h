#pragma once

// Records and request models of the server-API library. Plain values: the caller fills a model on
// its own stack and passes it by const reference; the library copies what it needs before the
// call returns. See docs/protocol.md for how each member travels on the wire.

#include "serverapi_export.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

#include <functional>

// Outcome of one request, handed to its completion callback exactly once.
struct SERVERAPI_EXPORT ResponseData
{
    QString body;        // response body (JSON for every metadata operation; empty for file bodies)
    QString errorString; // transport-level description of a failure, empty on success
    int statusCode = 0;  // HTTP status; 0 when no answer was received
    int errorCode = 0;   // library error (ServerApi::LibraryError), 0 when the exchange itself worked
    QHash<QByteArray, QByteArray> headers; // response headers, names as sent; repeated ones joined by '\n'
};

// Cumulative counts of one request (not deltas).
struct SERVERAPI_EXPORT UploadProgressData
{
    qint64 bytesSent = 0;
    qint64 bytesTotal = 0;
};

struct SERVERAPI_EXPORT DownloadProgressData
{
    qint64 bytesReceived = 0;
    qint64 bytesTotal = 0; // -1 while the size is unknown
};

// The addressing part of a request: which space and entry it refers to.
struct SERVERAPI_EXPORT KXServerApiEntryModel
{
    QString host;       // data-server base address ("http://127.0.0.1:8080"); empty: the configured one
    QString pathType;   // the space the path lies in ("self", "ent", ...); empty: "self"
    QString path;       // remote path, '/'-separated, absolute inside its space
    QString neid;       // server entry id, when known
    QString prefixNeid; // entry id of the parent, when known
    QString rev;        // wanted revision; empty: the latest
    QString from;       // origin tag of the entry (passed through)
    QString overwrite;  // "true" replaces an existing file; anything else refuses with "target name exists"
    QString modifyTime; // client modification time (seconds since the epoch, as text), may be empty
};

struct SERVERAPI_EXPORT KXServerApiMetaEntryModel
{
    KXServerApiEntryModel entry;
    bool list = false;        // also list a folder's children
    bool includeFiles = true; // with list: include files, not only folders
    QString sortBy;           // with list: "name" | "size" | "mtime"; empty: "name"
    QString sortOrder;        // "asc" | "desc"; empty: "asc"
    qint64 offset = 0;        // with list: index of the first child
    int pageSize = 1000;      // with list: most children in one answer
};

struct SERVERAPI_EXPORT KXServerApiQueryHashModel
{
    KXServerApiEntryModel entry; // where the file will be committed
    qint64 fileSize = 0;         // size of the whole file
    QStringList blockHashes;     // the hashes to ask about (SHA-256, lower-case hex)
};

struct SERVERAPI_EXPORT KXServerApiChunkedUploadModel
{
    QString uploadId;  // "upload_id" of the hash query
    QString hash;      // the block's SHA-256; the server verifies it on arrival
    qint64 length = 0; // bytes in the block
    QByteArray data;   // the block (at most 4 MiB), or empty when it is read from sourcePath
    // Where the block's bytes are read from while they are sent, when data is empty: `length`
    // bytes of this file from sourceOffset on. Nothing of the block is held in memory then.
    QString sourcePath;
    qint64 sourceOffset = 0;
};

struct SERVERAPI_EXPORT KXServerApiCommitHashModel
{
    KXServerApiEntryModel entry;
    QString uploadId;        // optional: the upload session the blocks went to
    QStringList blockHashes; // the file's blocks in file order
    qint64 size = 0;         // the file's size; must equal the sum of the blocks
    bool makeParents = true; // create missing parent folders
    bool verify = true;      // check every block is present before the file appears
    QString source;          // "sync" for tasks of the sync source, else empty
};

struct SERVERAPI_EXPORT KXSeverApiDLRouterModel
{
    KXServerApiEntryModel entry;
    QString range;  // "bytes=a-b" for a ranged download; empty: the whole file
    QString source; // "sync" for tasks of the sync source, else empty
};

struct SERVERAPI_EXPORT KXServerApiUploadFileModel
{
    KXServerApiEntryModel entry; // entry.path is the full remote path of the new file
    QString localPath;           // the file to send; read while it is sent, never loaded whole
    QString source;              // "sync" for tasks of the sync source, else empty
    qint64 size = 0;             // bytes expected; the upload fails if the file changed size
};

// Share links ("deliveries"). A link is named by its code; an upload session is opened with
// DeliveryAuthUpload and carried by the session id (and the "S" cookie) it answers.
struct SERVERAPI_EXPORT KXServerApiDeliveryModel
{
    QString code;      // the link's code
    QString sessionId; // share session from DeliveryAuthUpload
    QString path;      // path of the file inside the shared folder
    qint64 length = 0; // block length, or the file size for a hash query
    QString hash;      // the block's SHA-256
    QString uploadId;  // "upload_id" of the share-link hash query
};

struct SERVERAPI_EXPORT KXServerApiDeliveryAuthUploadModel
{
    QString code;      // the link's code
    QString token;     // the link's password, if it has one
    QString host;      // server base address of the link; empty: the configured one
    QString path;      // target folder inside the shared folder ("" = its root)
    QString name;      // file name to create
    QString overwrite; // "true" replaces an existing file
    qint64 size = 0;   // size of the file to upload
};

struct SERVERAPI_EXPORT KXServerApiDeliveryDataModel
{
    QString code;      // the link's code
    QString token;     // the link's password, if it has one
    QString host;      // server base address; for uploads the "upload_url" of the authorisation
    QString sessionId; // share session (uploads)
    QString path;      // path inside the share (a file link: empty)
    QString localPath; // file to send (uploads)
    qint64 size = 0;   // bytes to send (uploads)
    QString overwrite; // uploads: "true" replaces an existing file, as the authorisation asked
};

struct SERVERAPI_EXPORT KXServerApiDeliveryQueryHashModel
{
    KXServerApiDeliveryDataModel link;
    QStringList blockHashes;
};

struct SERVERAPI_EXPORT KXServerApiDeliveryChunkedUploadModel
{
    KXServerApiDeliveryDataModel link;
    KXServerApiChunkedUploadModel block;
};

struct SERVERAPI_EXPORT KXServerApiDeliveryCommitHashModel
{
    KXServerApiDeliveryDataModel link;
    QString uploadId;
    QStringList blockHashes;
    qint64 size = 0;
};

using KXServerApiDeliveryUploadFileModel = KXServerApiDeliveryDataModel;
using KXServerApiDeliveryDownloadFileModel = KXServerApiDeliveryDataModel;

struct SERVERAPI_EXPORT KXSeverApiDeliveryDLRouterModel
{
    KXServerApiDeliveryDataModel link;
    QString range; // "bytes=a-b"
};

namespace ServerApi {

using ResponseCallback = std::function<void(const ResponseData&)>;
using UploadProgressCallback = std::function<void(const UploadProgressData&)>;
using DownloadProgressCallback = std::function<void(const DownloadProgressData&)>;
using DataCallback = std::function<void(const QByteArray&)>;

// Values of ResponseData::errorCode. Transport failures keep libcurl's own number (documented in
// docs/protocol.md); the library adds these of its own.
enum LibraryError
{
    NoLibraryError = 0,
    ErrorCancelled = 1001,   // ServerApi::Cancel ended the request (statusCode is 0)
    ErrorLocalFile = 1002,   // the local file to send could not be opened or changed size
    ErrorShutdown = 1003,    // the library was shut down before the request could run
    ErrorBadArgument = 1004, // a model member was missing or malformed
};

} // namespace ServerApi
