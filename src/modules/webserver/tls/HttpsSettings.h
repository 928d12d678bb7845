#pragma once

#include <QString>

/// The settings of the HTTPS server, as they are now.
struct HttpsSettings {
    QString certificatePem; ///< The authority's with useDeviceCert, otherwise the server's own.
    QString keyPem;
    bool useDeviceCert = false;
    int port = 0;

    static HttpsSettings read();
    bool isWanted() const { return !certificatePem.isEmpty() && !keyPem.isEmpty() && port > 0; }

    /// From now on the nodes refuse a certificate and a key that do not belong together.
    static void guardNodes();
    /// TLS 1.2 and 1.3, forward secrecy, authenticated encryption. To be called before the first use of TLS, whose
    /// library reads G_TLS_GNUTLS_PRIORITY once; a value that the environment holds already wins.
    static void restrictTls();
};
