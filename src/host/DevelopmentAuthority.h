#pragma once

#include <QByteArray>
#include <QString>

class CMNodeTree;

/// The certificate authority that signs the device certificate where nobody has configured another: made on the first
/// start, kept in the state directory as authority.pem (to be imported by those who trust the device) and
/// authority-key.pem (mode 0600).
class DevelopmentAuthority {
public:
    explicit DevelopmentAuthority(const QString& stateDirectory);

    /// Gives the web server's settings this authority, for this run only, when they ask for a device certificate and
    /// name no authority; again after the files have changed, when they had it before. False, with a sentence in
    /// `error`, when it can be neither read nor made; what was in use stays then. Does nothing to a tree without these
    /// settings.
    bool apply(CMNodeTree* tree, QString* error);

    bool isUsed() const { return m_used; }
    QString certificateFile() const;
    /// SHA-256 of the certificate, in the form in which browsers and `openssl x509 -fingerprint` show it.
    QString fingerprint() const;

private:
    bool load(QString* error);
    bool make(QString* error) const;
    QString keyFile() const;

    QString m_directory;
    QByteArray m_certificatePem;
    QByteArray m_keyPem;
    bool m_used = false;
};
