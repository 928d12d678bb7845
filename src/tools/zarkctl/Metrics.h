#pragma once

#include <QStringList>

#include "Output.h"

/// The records of `metrics` as OpenMetrics text, the lines of a metric together whatever device they come from.
QByteArray metricsText(const QList<Report>& reports, const QStringList& unreachable);
/// Replaces the file as a whole, so that a collector never reads half of it. Throws a Failure.
void writeMetrics(const QByteArray& text, const QString& fileName);
