#pragma once

// A look into a SQLite file from outside the code under test: one statement on a connection of
// the test's own, opened and removed around it, on the calling thread.

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

// The first column of the first row; invalid when the statement fails or finds nothing. The file
// is opened read-only, so that looking never creates it.
inline QVariant sqlValue(const QString& path, const QString& sql, const QVariantList& binds = {})
{
    const QString name = QStringLiteral("kx-test-look");
    QVariant value;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(path);
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        if (db.open()) {
            QSqlQuery query(db);
            query.prepare(sql);
            for (const QVariant& bind : binds)
                query.addBindValue(bind);
            if (query.exec() && query.next())
                value = query.value(0);
        }
    }
    QSqlDatabase::removeDatabase(name);
    return value;
}

inline bool sqlExec(const QString& path, const QString& sql)
{
    const QString name = QStringLiteral("kx-test-write");
    bool ok = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(path);
        ok = db.open() && QSqlQuery(db).exec(sql);
    }
    QSqlDatabase::removeDatabase(name);
    return ok;
}
