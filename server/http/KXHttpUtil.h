#pragma once

// Small helpers around cpp-httplib requests and JSON bodies shared by the request handlers.

#include "core/KXServerTypes.h"

#include <QJsonObject>

#include <string>
#include <vector>

namespace httplib {
struct Request;
}

namespace KXHttp {

// The value of cookie `name` in the request's Cookie headers; empty when absent.
std::string cookie(const httplib::Request& req, const std::string& name);
// Port and printable address of one end of a TCP/IP socket, written as cpp-httplib writes a
// request's addresses (so the two compare equal); false for any other socket.
bool endpoint(int fd, bool peer, std::string* address, int* port);
// Closes the request's TCP connection at once (fault injection): the client sees the connection
// drop instead of an answer.
bool dropConnection(const httplib::Request& req);

// Refuses a request whose body cannot be framed unambiguously: Content-Length headers that differ
// or do not parse, Content-Length together with Transfer-Encoding, a coding other than chunked
// (400), and a POST or PUT with neither (411). Such a request ends its connection.
ServerError framingError(const httplib::Request& req);

QJsonObject errorBody(const ServerError& error);
std::string compact(const QJsonObject& object);

// Typed reads of JSON members. A missing member gives the default; a member of the wrong type is
// a 400 "bad request" naming it.
ServerError string(const QJsonObject& body, const char* key, std::string* out,
                   const std::string& fallback = {});
ServerError integer(const QJsonObject& body, const char* key, qint64* out, bool required);
ServerError boolean(const QJsonObject& body, const char* key, bool* out, bool fallback);
ServerError hashList(const QJsonObject& body, const char* key, std::vector<std::string>* out);
// "true"/"1" (any case) in a query parameter.
bool isTrue(const std::string& text);

} // namespace KXHttp
