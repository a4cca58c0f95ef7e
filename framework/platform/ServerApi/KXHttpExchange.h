#pragma once

// One HTTP exchange as the operations of ServerApi describe it to the transport: what to send,
// where the answer's body goes, whether it may be repeated, and whom to call back. Built on the
// caller's thread, then handed whole to the library thread.

#include "ServerApiConfig.h"
#include "ServerApiTypes.h"

#include <QByteArray>
#include <QList>
#include <QString>

struct KXHttpExchange
{
    enum class Method
    {
        Get,
        Post,
        Put
    };
    // Where the body of a 2xx answer goes; other answers always land in ResponseData::body.
    enum class Sink
    {
        Text, // ResponseData::body
        Data, // the data callback, piece by piece
        File  // written into sinkPath (created or emptied first)
    };
    enum class Source
    {
        None,
        Memory,   // body
        File,     // read from sourcePath while it is sent
        FileRange // sourceSize bytes of sourcePath from sourceOffset on, read while they are sent
    };

    Method method = Method::Get;
    QByteArray url;
    QList<QByteArray> headers; // complete "Name: value" lines

    Source source = Source::None;
    QByteArray body;
    QString sourcePath;
    qint64 sourceSize = -1;  // bytes the file must hold; -1: whatever it holds when the upload starts
    qint64 sourceOffset = 0; // FileRange only: where the range starts

    Sink sink = Sink::Text;
    QString sinkPath;

    bool retryable = false;       // may be sent again after a transport failure or a 502/503/504
    bool followRedirects = false; // plain addresses only

    // A request found unusable while it was built: completed with this error, nothing is sent.
    int rejectError = ServerApi::NoLibraryError;
    QString rejectText;

    ServerApi::Config config; // the configuration as it was when the request was made

    ServerApi::ResponseCallback onResponse;
    ServerApi::UploadProgressCallback onUploadProgress;
    ServerApi::DownloadProgressCallback onDownloadProgress;
    ServerApi::DataCallback onData;
};
