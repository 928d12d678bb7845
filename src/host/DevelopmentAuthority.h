#pragma once

#include <QByteArray>
#include <QString>

class CMNodeTree;

/// The certificate authority that signs the device certificate where nobody has configured another: made on the first
/// start, kept in the state directory as authority.pem (to be imported by those who trust the device) and
/// authority-key.pem (mode 0600).
///
/// Files that cannot be used (one is missing, empty or unreadable, they do not belong together, the present time is not
/// within the certificate's) are set aside under a dated name, and others are made; a pair that was set aside is taken
/// back when it can be used again.
class DevelopmentAuthority {
public:
    explicit DevelopmentAuthority(const QString& stateDirectory);

    /// Gives the web server's settings this authority, for this run only, when they ask for a device certificate and
    /// name no authority; again after the files have changed, when they had it before. False, with a sentence in
    /// `error`, when it can be neither read nor made, or when the files have become unusable under one that is in use:
    /// that one stays. Does nothing to a tree without these settings. Blocks while `openssl` makes a pair.
    bool apply(CMNodeTree* tree, QString* error);

    bool isWanted() const { return m_wanted; } ///< At the last apply().
    bool isUsed() const { return m_wanted && !m_pair.certificate.isEmpty(); }
    /// Wanted, and not to be had so far or not valid at the present time: apply() is worth a try.
    bool isDue() const { return m_wanted && !faultOf(m_pair).isEmpty(); }
    QString certificateFile() const;
    /// SHA-256 of the certificate, in the form in which browsers and `openssl x509 -fingerprint` show it.
    QString fingerprint() const { return fingerprintOf(m_pair.certificate); }

private:
    struct Pair {
        QByteArray certificate;
        QByteArray key;
    };

    static QString faultOf(const Pair& pair);
    static Pair read(const QString& certificateFile, const QString& keyFile);
    static QString fingerprintOf(const QByteArray& certificate);
    bool provide(Pair* pair, QString* error) const;
    bool setAside(const QString& fault, QString* error) const;
    bool takeBack(Pair* pair) const;
    bool make(Pair* pair, QString* error) const;
    bool install(QString* error) const;
    void removeUnfinished() const;
    QString keyFile() const;
    QString newCertificateFile() const;
    QString newKeyFile() const;

    QString m_directory;
    Pair m_pair; ///< What the settings were given; empty before.
    bool m_wanted = false;
};
