// Headers of the libraries that nearly every source reads, compiled once. A source includes what it uses all the same:
// the lint compiles each without this.
#pragma once

#ifdef __cplusplus
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include <QtCore>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <gio/gio.h>
#include <libsoup/soup.h>
#endif
