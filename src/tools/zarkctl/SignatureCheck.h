#pragma once

#include <QByteArrayList>
#include <QString>

/// Finds out why a device refuses a signature: tries what clients get wrong until the signature comes out.
class SignatureCheck {
public:
    /// What should have been signed.
    struct Request {
        QString user;
        QString password;
        QByteArray uri; ///< As the client sent it.
        bool isPost;
        QByteArray body;
    };

    explicit SignatureCheck(const Request& request) : m_request(request) { }

    /// Sentences on the Authorization header's value ("Authorization: " before it is skipped); `holds` when it is
    /// right.
    QByteArrayList explain(const QByteArray& header, bool* holds) const;

    /// The URI as the server prints it, and signs it: no default port, no dot segments, nothing escaped that need not
    /// be.
    static QByteArray serversForm(const QByteArray& uri);

private:
    struct Parts;
    QByteArrayList faultsOf(const Parts& parts) const;
    QByteArray findMistake(const Parts& parts) const;

    Request m_request;
};
