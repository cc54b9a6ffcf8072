// The host's callback table, kept by initQdQuick. Every layer may call the
// host, so the declaration sits here rather than with the code that fills it.
#pragma once

#include "qdquick/qdquick.h"

extern quickevcb_t quickevcb;
