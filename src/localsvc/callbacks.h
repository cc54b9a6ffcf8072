// The host's callback table, kept by initQdQuick.
#pragma once

#include "qdquick/qdquick.h"

extern quickevcb_t quickevcb;
