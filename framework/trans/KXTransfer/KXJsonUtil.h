#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <QString>
#include <QtGlobal>

#include <initializer_list>
#include <utility>
#include <vector>

// Typed helpers for the JSON texts of task and block records. Writers put the key and then the
// value into a compact writer. Readers take an object value and never fail: rows written by
// older clients carry numbers as strings and flags as numbers, so each reader accepts the
// other JSON types it can make sense of and falls back otherwise. A value that is not an
// object reads like an empty object. Stateless; safe from any thread.
class CKXJsonUtil
{
public:
    using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

    // Reads `text` into `doc`; false unless it is a JSON object. Iterative: the texts come from
    // servers and from a database file that may be damaged, and nesting a recursive reader a
    // million levels deep overflows the stack of any thread.
    static bool parseObject(const QString& text, rapidjson::Document& doc);

    static void writeString(JsonWriter& writer, const char* key, const QString& value);
    static void writeBool(JsonWriter& writer, const char* key, bool value);
    static void writeInt64(JsonWriter& writer, const char* key, qint64 value);
    static void writeInt(JsonWriter& writer, const char* key, int value);

    // A string as its text, a number as the shortest text of its double value; else `def`.
    static QString getString(const rapidjson::Value& object, const char* key, const QString& def = QString());
    // A bool as itself, a number as "not zero"; a missing key or any other type reads as false
    // whatever `def` says, as stored flags always have.
    static bool getBool(const rapidjson::Value& object, const char* key, bool def = false);
    // An integer that fits, or a string holding a decimal number; else `def`.
    static qint64 getInt64(const rapidjson::Value& object, const char* key, qint64 def);
    static int getInt(const rapidjson::Value& object, const char* key, int def);

    // The member `key` of `object`, or null when `object` is not an object or has no such key.
    static const rapidjson::Value* member(const rapidjson::Value& object, const char* key);
};

// The flag text of a state as task and block records carry it: the names of the set flags joined
// by "|" in the table's order, or the "none" name alone for the "none" value. Reading ORs the
// flags of every name the text contains; a text holding the "none" name is the "none" value.
// Immutable after construction; safe from any thread.
class CKXFlagNames
{
public:
    CKXFlagNames(qint32 noneValue, const char* noneName,
                 std::initializer_list<std::pair<qint32, const char*>> names);

    QString toString(qint32 value) const;
    qint32 fromString(const QString& text) const;

private:
    qint32 m_noneValue;
    const char* m_noneName;
    std::vector<std::pair<qint32, const char*>> m_names; // in writing order
};
