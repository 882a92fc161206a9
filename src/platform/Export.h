#pragma once

/** Marks what users of libreflectorb.so may link against; all else is hidden. */
#define REFLECTORB_API __attribute__((visibility("default")))
