#pragma once

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include "Files.h"

/// A document root with something beside it that must never be seen.
class DocumentRoot {
public:
    DocumentRoot()
    {
        writeFile(m_directory.filePath("www/.keep"), {});
        writeFile(m_directory.filePath("canary.txt"), Canary);
    }

    QString path() const { return m_directory.filePath("www"); }
    QString setting() const { return "settings:webserver/documentRoot=" + path(); }
    QByteArray file(const QByteArray& name) const { return path().toUtf8() + '/' + name; }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        writeFile(QString::fromUtf8(file(name)), content);
    }
    /// A file of zeros that takes no room.
    void writeSparse(const QByteArray& name, qint64 size) const
    {
        write(name, {});
        QFile::resize(QString::fromUtf8(file(name)), size);
    }

    static constexpr const char* Canary = "canary-9d1f";

private:
    QTemporaryDir m_directory;
};
