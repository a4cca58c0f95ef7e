#pragma once

// The file routes' half that the account and the share-link routes have in common: reads what
// the file service needs from the request and turns what it returns into the response. Called
// by the handlers, once they have authenticated the request and resolved its target, on the
// connection's thread. Stateless.

#include "core/KXServerTypes.h"

#include <QJsonObject>

#include <string>
#include <vector>

namespace httplib {
struct Request;
}

class CKXFileService;
class CKXRequest;

namespace KXFileApi {

QJsonObject metadataJson(const EntryInfo& entry);

// The checks of an upload that need no body (see CKXFileService), on the request's headers and
// parameters, for the router to run before the body is accepted.
ServerError preflightFile(CKXFileService& files, const httplib::Request& req, const Target& target,
                          bool overwrite);
ServerError preflightBlock(const httplib::Request& req);
ServerError admitBlock(CKXFileService& files, const httplib::Request& req, const UploadSession& session);

void receiveFile(CKXRequest& r, CKXFileService& files, const Target& target, bool overwrite, qint64 mtime);
void sendFile(CKXRequest& r, CKXFileService& files, const Target& target, const std::string& rev,
              const char* notFoundCode);
void queryHash(CKXRequest& r, CKXFileService& files, const Target& target, qint64 size, bool overwrite,
               const std::vector<std::string>& hashes, const Reach& reach);
// An armed "wrong_hash" fault answers with a hash that differs from the stored block's.
void receiveBlock(CKXRequest& r, CKXFileService& files, const UploadSession& session);
void commit(CKXRequest& r, CKXFileService& files, const CommitParams& params,
            const std::vector<std::string>& hashes, const std::string& uploadId, const Reach& reach);

} // namespace KXFileApi
