#pragma once

#include <QByteArray>

/// The header of one part of a multipart/form-data body (RFC 7578, section 4).
struct MultipartPart {
    QByteArray name; ///< Of the form's field, in UTF-8 as a rule; empty when the part names none.
    QByteArray fileName; ///< As the client wrote it: not a path to be trusted. Empty when there is none.
    QByteArray contentType; ///< text/plain when the part says nothing (RFC 7578, section 4.4).
};

/// Reads a part's header: fields that each end with a line end, folded ones included (RFC 5322, section 2.2.3). False
/// for what is no such field, and without "Content-Disposition: form-data" with a name (RFC 7578, section 4.2).
bool parsePartHeader(const QByteArray& header, MultipartPart* part);
