#pragma once

// A look into a SQLite file from outside the code under test: one statement on a connection of
// the test's own, opened and removed around it, on the calling thread.

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

#include <functional>

// Runs `use` on the open connection; read-only when `readOnly`, so that looking never creates the
// file. Nothing runs when the file cannot be opened.
inline void onSqlConnection(const QString& path, bool readOnly, const std::function<void(QSqlDatabase&)>& use)
{
    const QString name = QStringLiteral("kx-test-sql");
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(path);
        if (readOnly)
            db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        if (db.open())
            use(db);
    }
    QSqlDatabase::removeDatabase(name);
}

// The first column of the first row; invalid when the statement fails or finds nothing.
inline QVariant sqlValue(const QString& path, const QString& sql, const QVariantList& binds = {})
{
    QVariant value;
    onSqlConnection(path, true, [&](QSqlDatabase& db) {
        QSqlQuery query(db);
        query.prepare(sql);
        for (const QVariant& bind : binds)
            query.addBindValue(bind);
        if (query.exec() && query.next())
            value = query.value(0);
    });
    return value;
}

inline bool sqlExec(const QString& path, const QString& sql)
{
    bool ok = false;
    onSqlConnection(path, false, [&](QSqlDatabase& db) { ok = QSqlQuery(db).exec(sql); });
    return ok;
}
