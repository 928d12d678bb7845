#pragma once

#include "MultipartParser.h"
#include "SignedResponder.h"

/// Answers one multipart/form-data request whose body is handed to it part by part, as it arrives. Run by a
/// MultipartHandler:
///
///     respond(), at the head → partBegan(), partData(), partEnded(), … → bodyEnded()
///
/// respond() either refuses, which ends the exchange with the body unread, or says nothing and takes the parts. The
/// answer may come at any time; nothing of the body reaches the responder any more after it.
class MultipartResponder : public SignedResponder, public MultipartSink {
    Q_OBJECT
public:
    using SignedResponder::SignedResponder;

    /// Whether no more of the body may be read for now; ready() ends that.
    virtual bool isFull() const { return false; }
    /// The body has ended, with its last boundary (NoError) or not, or it is no multipart body.
    virtual void bodyEnded(MultipartParser::Error error) = 0;

Q_SIGNALS:
    void ready();
};
