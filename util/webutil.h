// The utility library exported beside the channel.
#ifndef WEBCHANNEL_UTIL_WEBUTIL_H
#define WEBCHANNEL_UTIL_WEBUTIL_H

#include "console.h"
#include "fs.h"
#include "logging.h"
#include "process.h"
#include "strings.h"

#endif
