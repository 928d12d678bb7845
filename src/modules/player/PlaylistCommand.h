#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include "CMError.h"

/// The argument of a playlist command, such as {"index": 3, "title": "Intermezzo"}.
struct PlaylistCommand {
    int index = -1;
    int toIndex = -1;
    QString title;

    /// Reads a JSON object that has exactly `keys`. `error` tells what is missing, unknown or of another type.
    static PlaylistCommand fromJson(const QVariant& json, const QStringList& keys, CMError* error);
};
