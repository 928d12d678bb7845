#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>

#include "PrivateFile.h"

/// Makes the certificate of an HTTPS server for the addresses that the device has, with the system's `openssl`. The
/// key is made once and kept as long as this object; the certificate is signed by the authority each time.
///
/// Everything runs on the caller's thread and blocks it meanwhile, each run of the tool for 5 s at the most.
class DeviceCertificate {
public:
    /// The authority's certificate and key, both PEM. The work files are made in `directory`.
    explicit DeviceCertificate(const QString& authorityPem, const QString& directory = QStringLiteral("/tmp"));

    void setAuthority(const QString& authorityPem) { m_authorityPem = authorityPem; }

    /// Makes key (the first time), request and certificate. False, with the text that was logged in `error`, when a
    /// step fails. Call it, and read the files, with lock() held: other processes work under the same names.
    bool renew(const QSet<QString>& addresses, QString* error);
    std::unique_ptr<PrivateFileLock> lock() const;

    const QString& certificateFile() const { return m_certificateFile; } ///< Empty until there is one.
    const QString& keyFile() const { return m_keyFile; } ///< Empty until there is one.

    /// The extension file of a certificate for these addresses; what is no address is left out.
    static QByteArray extensions(const QSet<QString>& addresses);
    /// The device's subject as the tool's answer about the authority gives it.
    static QString subjectFrom(const QByteArray& answer);

private:
    bool provideKey(QString* error);
    QString subject(const QString& authorityFile) const;
    bool makeRequest(const QString& subject, QString* error) const;
    bool sign(const QString& authorityFile, const QString& extensionFile, QString* error);

    QString m_authorityPem;
    QString m_directory;
    PrivateFile m_key;
    PrivateFile m_certificate;
    PrivateFile m_request;
    QByteArray m_keyPem; ///< Outlives the file: directories for temporary files are cleaned.
    QString m_keyFile;
    QString m_certificateFile;
};
