#pragma once

#include "Handler.h"

/// Answers 404 without a body.
class NotFoundHandler : public Handler {
    Q_OBJECT
public:
    using Handler::Handler;

    void handle(Message* message) override;
};
