#pragma once

#include <QByteArray>
#include <QString>

#include <curl/curl.h>

/// How a transfer ended without an answer.
struct TransferEnd {
    CURLcode code;
    long verification; ///< OpenSSL's X509_V_ERR_*, 0 for none.
    QByteArray detail; ///< libcurl's own words; may be empty.
    QByteArray url;
    bool answered; ///< A head came.
};

/// One sentence for people: what went wrong, and which option mends it where one does.
QString transferFailure(const TransferEnd& end);
