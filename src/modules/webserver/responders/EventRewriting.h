#pragma once

#include "ZarkEvent.h"
#include "ZarkList.h"

/// What the event API adds to lists for clients that know less than the framework does.

/// Appends the current form of each subscription of the legacy form, which itself stays. Whether there was one.
bool addCurrentPaths(ZarkList<ZarkEventSubscribe>* subscriptions);

/// Appends a copy under the legacy path of each event whose path has one; the event itself stays.
void addLegacyPaths(ZarkList<ZarkEvent>* events);

/// Puts a removal at the old index and an insertion at the new one in place of each move of a row.
void splitMoves(ZarkList<ZarkEvent>* events);
