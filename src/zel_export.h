// Symbol visibility: the library is built with hidden visibility, and only what a harness may
// call carries ZEL_TC_API.
#pragma once

#define ZEL_TC_API __attribute__((visibility("default")))
