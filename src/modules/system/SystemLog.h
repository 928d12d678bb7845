#pragma once

#include "dbglog.h"

/// The logger of this module.
const DbgLogger& systemLog();
