#pragma once

// QN_EXPORT marks what the shared library shows; everything else is hidden.
#define QN_EXPORT __attribute__((visibility("default")))
