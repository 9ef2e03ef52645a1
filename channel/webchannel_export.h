// Symbol visibility for the shared object. The library is built with hidden
// visibility; only what is marked here is part of its ABI.
#ifndef WEBCHANNEL_EXPORT_H
#define WEBCHANNEL_EXPORT_H

#define WEBCHANNEL_EXPORT __attribute__((visibility("default")))

#endif
