#include "KXJsonUtil.h"

#include <QLocale>
#include <QStringList>

void CKXJsonUtil::writeString(JsonWriter& writer, const char* key, const QString& value)
{
    const QByteArray utf8 = value.toUtf8();
    writer.Key(key);
    writer.String(utf8.constData(), static_cast<rapidjson::SizeType>(utf8.size()));
}

void CKXJsonUtil::writeBool(JsonWriter& writer, const char* key, bool value)
{
    writer.Key(key);
    writer.Bool(value);
}

void CKXJsonUtil::writeInt64(JsonWriter& writer, const char* key, qint64 value)
{
    writer.Key(key);
    writer.Int64(value);
}

void CKXJsonUtil::writeInt(JsonWriter& writer, const char* key, int value)
{
    writer.Key(key);
    writer.Int(value);
}

const rapidjson::Value* CKXJsonUtil::member(const rapidjson::Value& object, const char* key)
{
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto it = object.FindMember(key);
    return it == object.MemberEnd() ? nullptr : &it->value;
}

bool CKXJsonUtil::parseObject(const QString& text, rapidjson::Document& doc)
{
    const QByteArray utf8 = text.toUtf8();
    doc.Parse<rapidjson::kParseIterativeFlag>(utf8.constData(), static_cast<size_t>(utf8.size()));
    return !doc.HasParseError() && doc.IsObject();
}

QString CKXJsonUtil::getString(const rapidjson::Value& object, const char* key, const QString& def)
{
    const rapidjson::Value* value = member(object, key);
    if (!value) {
        return def;
    }
    if (value->IsString()) {
        return QString::fromUtf8(value->GetString(), static_cast<int>(value->GetStringLength()));
    }
    if (value->IsNumber()) {
        return QString::number(value->GetDouble(), 'g', QLocale::FloatingPointShortest);
    }
    return def;
}

bool CKXJsonUtil::getBool(const rapidjson::Value& object, const char* key, bool /*def*/)
{
    const rapidjson::Value* value = member(object, key);
    if (!value) {
        return false;
    }
    if (value->IsBool()) {
        return value->GetBool();
    }
    if (value->IsNumber()) {
        return value->GetDouble() != 0.0;
    }
    return false;
}

qint64 CKXJsonUtil::getInt64(const rapidjson::Value& object, const char* key, qint64 def)
{
    const rapidjson::Value* value = member(object, key);
    if (!value) {
        return def;
    }
    if (value->IsInt64()) {
        return value->GetInt64();
    }
    if (value->IsString()) {
        bool ok = false;
        const qint64 parsed =
            QString::fromUtf8(value->GetString(), static_cast<int>(value->GetStringLength())).toLongLong(&ok);
        return ok ? parsed : def;
    }
    return def;
}

int CKXJsonUtil::getInt(const rapidjson::Value& object, const char* key, int def)
{
    const rapidjson::Value* value = member(object, key);
    if (!value) {
        return def;
    }
    if (value->IsInt()) {
        return value->GetInt();
    }
    if (value->IsUint()) {
        // Older writers stored some codes unsigned; keep their bit pattern.
        return static_cast<int>(value->GetUint());
    }
    if (value->IsString()) {
        bool ok = false;
        const int parsed =
            QString::fromUtf8(value->GetString(), static_cast<int>(value->GetStringLength())).toInt(&ok);
        return ok ? parsed : def;
    }
    return def;
}

CKXFlagNames::CKXFlagNames(qint32 noneValue, const char* noneName,
                           std::initializer_list<std::pair<qint32, const char*>> names)
    : m_noneValue(noneValue), m_noneName(noneName), m_names(names)
{}

QString CKXFlagNames::toString(qint32 value) const
{
    if (value == m_noneValue) {
        return QLatin1String(m_noneName);
    }
    QStringList parts;
    for (const auto& [flag, name] : m_names) {
        if (value & flag) {
            parts << QLatin1String(name);
        }
    }
    return parts.join(QLatin1Char('|'));
}

qint32 CKXFlagNames::fromString(const QString& text) const
{
    if (text.contains(QLatin1String(m_noneName))) {
        return m_noneValue;
    }
    qint32 value = 0;
    for (const auto& [flag, name] : m_names) {
        if (text.contains(QLatin1String(name))) {
            value |= flag;
        }
    }
    return value;
}
