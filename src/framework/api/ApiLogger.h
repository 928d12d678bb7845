#pragma once

#include "dbglog.h"

/// The logger of this library, "zark.api".
const DbgLogger& apiLogger();
