#pragma once

// The value record of one transfer and its codes. The public API header includes this file and
// the shared library hides every internal symbol, so everything here is header-only: plain
// values with inline defaults, the compiler's copy operations and an inline clear().
// Strings are implicitly shared QStrings, so a record is cheap to copy and safe to hand to
// another thread by value. No locking here: each thread works on its own copy.

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>

// Task state flags; a task may carry several at once (Working|Paused while a pause is pending).
// The underlying type is fixed, so any combination is a valid value of the enum.
enum TaskState : qint32
{
    StateNone = 0,
    StateWaitPreparing = 1,
    StatePreparing = 2,
    StateWorking = 4,
    StatePaused = 8,
    StateWaiting = 16,
    StateError = 32,
    StateCompleted = 64,
    StateStop = 128,
};

// Codes handed to the client's error callback. 200xx come from server answers, 201xx are found
// locally by the engine.
enum ErrorCode : qint32
{
    NoError = 0,
    ServerError = 20001,
    ResponseInvalid = 20002,
    SessionInvalid = 20003,
    TargetExists = 20004,
    SourceNotFound = 20005,
    Forbidden = 20007,
    PathTooLong = 20008,
    NoSpace = 20009,
    FileLocked = 20010,
    PrivateDcNotAllowed = 20012,
    ContentHashError = 20013,
    ConflictWithFile = 20018,
    ConflictWithFolder = 20019,
    ParentConflictWithFile = 20020,
    ParentConflictWithFolder = 20021,
    RootParentConflictWithFile = 20022,
    RootParentConflictWithFolder = 20023,
    FileTypeLimit = 20024,
    VirusFile = 20031,
    UploadHashError = 20102,
    BlockIndexError = 20104,
    LocalFileError = 20106,
    RenameTmpFileError = 20110,
};

// The name of an ErrorCode enumerator ("NoSpace"), or "" for a code that has none.
inline const char* errorCodeName(int code)
{
    switch (code) {
    case NoError:
        return "NoError";
    case ServerError:
        return "ServerError";
    case ResponseInvalid:
        return "ResponseInvalid";
    case SessionInvalid:
        return "SessionInvalid";
    case TargetExists:
        return "TargetExists";
    case SourceNotFound:
        return "SourceNotFound";
    case Forbidden:
        return "Forbidden";
    case PathTooLong:
        return "PathTooLong";
    case NoSpace:
        return "NoSpace";
    case FileLocked:
        return "FileLocked";
    case PrivateDcNotAllowed:
        return "PrivateDcNotAllowed";
    case ContentHashError:
        return "ContentHashError";
    case ConflictWithFile:
        return "ConflictWithFile";
    case ConflictWithFolder:
        return "ConflictWithFolder";
    case ParentConflictWithFile:
        return "ParentConflictWithFile";
    case ParentConflictWithFolder:
        return "ParentConflictWithFolder";
    case RootParentConflictWithFile:
        return "RootParentConflictWithFile";
    case RootParentConflictWithFolder:
        return "RootParentConflictWithFolder";
    case FileTypeLimit:
        return "FileTypeLimit";
    case VirusFile:
        return "VirusFile";
    case UploadHashError:
        return "UploadHashError";
    case BlockIndexError:
        return "BlockIndexError";
    case LocalFileError:
        return "LocalFileError";
    case RenameTmpFileError:
        return "RenameTmpFileError";
    default:
        return "";
    }
}

// These three are chosen by the caller and the transfer classes and only carried by the record;
// any int32 is passed through unchanged. Only the defaults are named.
enum TaskTransferMethod : qint32
{
    TransferMethodDefault = 1,
};

enum RSyncTransferState : qint32
{
    RSyncStateDefault = 1,
};

enum TaskSource : qint32
{
    TaskSourceDefault = 4,
};

// Parameters of the share-link ("delivery") exchange.
struct DeliveryInfo
{
    QString code;
    QString overwrite; // kept as the server's text, not as a flag
    QString token;
    QString host;
    QString lbc;
    QString url;
    QString sessionId;
    QString s;
    QString userId;
    bool isUpload = true; // the one flag of the record that defaults to true
    QString rev;
    bool isDir = false;
    qint64 bytes = 0;

    void clear() { *this = DeliveryInfo(); }
};

// The server-side file of a task.
struct RemoteFileInfo
{
    qint64 size = 0;
    bool isDir = false;
    qint32 estHeadLength = 0; // length of the encryption header of an encrypted file
    QString path;
    QString pathType;
    QString neid;
    QString reservedText1;
    QString reservedText2;
    QString prefixNeid;
    QString from;
    QString rev;
    bool isEncrypted = false;
    bool canDownloadVirus = false;
    bool syncOverwrite = false;
    bool isFromUrl = false;
    bool isDirectUrl = false;
    QString downloadUrl;
    QString zipPassword;
    QString modifyTime;
    bool isDeliveryTrans = false;
    DeliveryInfo delivery;
    QStringList reservedList;

    void clear() { *this = RemoteFileInfo(); }
};

// The local file of a task.
struct LocalFileInfo
{
    qint64 size = 0;
    QString path;
    QString time; // local modification time, as text

    void clear() { *this = LocalFileInfo(); }
};

// The task proper; SubTaskInfo adds the sub-task identity.
struct TaskBase
{
    qint64 size = 0;
    qint64 sendBytes = 0;
    qint64 completeBytes = 0;
    qint64 usedTime = 0;
    qint64 completeTime = 0;
    qint64 reservedCount = 0;
    qint64 timeRetry = 0;
    qint32 priority = 3;
    qint32 httpCode = 200;
    qint32 retryTimes = 0;
    TaskState state = StateNone;
    ErrorCode errorCode = NoError;
    TaskTransferMethod transMethod = TransferMethodDefault;
    RSyncTransferState rsyncState = RSyncStateDefault;
    TaskSource taskSource = TaskSourceDefault;
    QString taskId;
    QString errorInfo;
    QString dataServerHost;
    QString newMetadata;
    QString newVaultPath;
    QString password; // plain text in memory; only its protected form is persisted
    QString reservedText;
    RemoteFileInfo remoteFile;
    LocalFileInfo localFile;
    QVector<int> partSizes;
    bool isFolder = false;
    bool isUpload = false;
    bool isQuickTrans = false;

    void clear() { *this = TaskBase(); }
};

// One transfer, keyed everywhere by subTaskId.
struct SubTaskInfo : TaskBase
{
    QString subTaskId;
    QString fingerMark;
    bool isChunckComplete = false;
    bool isMainSubTask = false;
    bool isVirus = false;

    void clear() { *this = SubTaskInfo(); }
};

Q_DECLARE_METATYPE(SubTaskInfo)
