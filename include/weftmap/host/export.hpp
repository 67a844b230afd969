// Symbol visibility of the host kit: built with hidden visibility, and only
// what carries WEFTMAP_HOST_API is exported.
#pragma once

#define WEFTMAP_HOST_API __attribute__((visibility("default")))
