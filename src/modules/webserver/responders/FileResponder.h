#pragma once

#include "Responder.h"

/// Serves the files directly under the prefix that the framework names for reading.
class FileResponder : public Responder {
    Q_OBJECT
public:
    FileResponder(Request& request, const QString& path, QObject* parent) : Responder(request, path, parent) { }

    void respond() override;
    bool respondWillBlock() override { return false; }

private:
    void serve(const QString& fileName);
    void refuse(const QString& fileName);
};
