// The host callback table handed to initQdQuick.
#pragma once

#include "qdquick/qdquick.h"

namespace qdd {

quickevcb_t host_callbacks();

}  // namespace qdd
