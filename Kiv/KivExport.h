#pragma once
// Symbols of libKivSegmentPrefixProcessor are hidden unless marked: the
// factories and the classes an agent uses through them are exported, the
// rest stays private to the library.
#define KIV_EXPORT __attribute__((visibility("default")))
