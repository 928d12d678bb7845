#pragma once

#include <QVariantHash>
#include <QVector>

/// What the demo's playlist starts with: `count` tracks between two and five minutes, the same ones every time.
QVector<QVariantHash> makeDemoTracks(int count);
