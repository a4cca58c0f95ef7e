#pragma once

// The server-API library: every exchange of the engine with the storage server.
//
// Every operation returns at once with a request id (> 0) and never blocks the caller. Callbacks
// run on the library's own thread, never on the caller's. Each request gets exactly one completion
// callback, always last: after a transport failure, after ServerApi::Cancel (statusCode 0,
// errorCode ErrorCancelled) and after shutdown(). Progress callbacks are cumulative per request
// and end with one final report; data callbacks hand on a download's body in order as it arrives.
// All functions are safe to call from any number of threads at once.

#include "ServerApiConfig.h"
#include "ServerApiTypes.h"

namespace ServerApi {

SERVERAPI_EXPORT qint64 MetaData(const KXServerApiMetaEntryModel& model, ResponseCallback onResponse);

SERVERAPI_EXPORT qint64 AuthUpload(const KXServerApiEntryModel& model, qint64 fileSize,
                                   ResponseCallback onResponse, const QString& route);

SERVERAPI_EXPORT qint64 UploadFile(const KXServerApiUploadFileModel& model, ResponseCallback onResponse,
                                   UploadProgressCallback onProgress);

SERVERAPI_EXPORT qint64 DownloadRouter(const KXSeverApiDLRouterModel& model, DataCallback onData,
                                       ResponseCallback onResponse, DownloadProgressCallback onProgress);

SERVERAPI_EXPORT qint64 QueryHash(const KXServerApiQueryHashModel& model, ResponseCallback onResponse,
                                  const QString& route);

SERVERAPI_EXPORT qint64 ChunkedUpload(const KXServerApiChunkedUploadModel& model, ResponseCallback onResponse,
                                      UploadProgressCallback onProgress, const QString& route);

SERVERAPI_EXPORT qint64 CommitHash(const KXServerApiCommitHashModel& model, ResponseCallback onResponse,
                                   const QString& route);

SERVERAPI_EXPORT qint64 DeliveryAuthUpload(const KXServerApiDeliveryAuthUploadModel& model,
                                           ResponseCallback onResponse);

SERVERAPI_EXPORT qint64 DeliveryQueryHash(const KXServerApiDeliveryQueryHashModel& model,
                                          ResponseCallback onResponse);

SERVERAPI_EXPORT qint64 DeliveryChunkedUpload(const KXServerApiDeliveryChunkedUploadModel& model,
                                              ResponseCallback onResponse, UploadProgressCallback onProgress);

SERVERAPI_EXPORT qint64 DeliveryCommitHash(const KXServerApiDeliveryCommitHashModel& model,
                                           ResponseCallback onResponse);

SERVERAPI_EXPORT qint64 DeliveryUploadFile(const KXServerApiDeliveryUploadFileModel& model,
                                           ResponseCallback onResponse, UploadProgressCallback onProgress);

// Whole-file download from a share link. The library itself writes the body into model.localPath
// (created or emptied first); there is no data callback.
SERVERAPI_EXPORT qint64 DeliveryDownloadFile(const KXServerApiDeliveryDownloadFileModel& model,
                                             ResponseCallback onResponse, DownloadProgressCallback onProgress);

SERVERAPI_EXPORT qint64 DeliveryDownloadRouter(const KXSeverApiDeliveryDLRouterModel& model, DataCallback onData,
                                               ResponseCallback onResponse, DownloadProgressCallback onProgress);

// Plain addresses: PUT the local file to `address`; GET `address`.
SERVERAPI_EXPORT qint64 Upload(const QString& localPath, const QString& address, ResponseCallback onResponse,
                               UploadProgressCallback onProgress);

SERVERAPI_EXPORT qint64 Download(const QString& address, DataCallback onData, ResponseCallback onResponse,
                                 DownloadProgressCallback onProgress);

// Reports a transfer event to the server's log service. For an upload the strings are, in order:
// event code, remote folder, file name, path type, entry id, an extra text, and an empty text.
SERVERAPI_EXPORT qint64 RPCServerLogging(const QString& event, const QString& folder, const QString& name,
                                         const QString& pathType, const QString& neid, const QString& extra1,
                                         const QString& extra2, ResponseCallback onResponse);

// Aborts a request. Its completion still comes, once, with errorCode ErrorCancelled, unless it had
// already completed. Unknown or finished ids are ignored.
SERVERAPI_EXPORT void Cancel(qint64 requestId);

} // namespace ServerApi
