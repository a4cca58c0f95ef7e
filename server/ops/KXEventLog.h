#pragma once

// The append-only event log (<root>/events.log) behind POST /v1/log: one JSON object per line.
// Shared by all connection threads; m_mutex keeps lines whole.

#include <QJsonObject>

#include <mutex>
#include <string>

class CKXEventLog
{
public:
    explicit CKXEventLog(std::string path);

    bool append(const QJsonObject& event);

private:
    const std::string m_path;
    std::mutex m_mutex; // guards appends to the file at m_path
};
