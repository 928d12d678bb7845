#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <unistd.h>

/// A document root with something beside it that must never be seen.
class DocumentRoot {
public:
    DocumentRoot()
    {
        QDir(m_directory.path()).mkdir("www");
        QFile canary(m_directory.filePath("canary.txt"));
        canary.open(QIODevice::WriteOnly);
        canary.write(Canary);
    }

    QString path() const { return m_directory.filePath("www"); }
    QString setting() const { return "settings:webserver/documentRoot=" + path(); }
    QByteArray file(const QByteArray& name) const { return path().toUtf8() + '/' + name; }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        QDir(path()).mkpath(QFileInfo(QString::fromUtf8(name)).path());
        QFile target(QString::fromUtf8(file(name)));
        target.open(QIODevice::WriteOnly);
        target.write(content);
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
