#pragma once

/// Gives back the memory that only the start has needed: pages of code and constants that are read from their files
/// again when somebody uses them, and the free ends of the heap. Call it once, when the device is ready.
///
/// A device runs for months on what a few of those pages hold; without this, relocating and starting a dozen libraries
/// counts as resident for good.
void releaseStartupPages();
