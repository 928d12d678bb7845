// The same for tests.
#pragma once

#include "pch.h"

#ifdef __cplusplus
#include <QtTest>
#endif
