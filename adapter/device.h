// Device facts of a plain Linux host. A vendor gateway reads them from its
// hardware and line; here they come from one key=value file,
//
//   /etc/qdplatform/device.conf   (under $QDQUICK_ROOT)
//
//   loid=<text>          LOID of the line              GetLoidInfo
//   cardno=<text>        card number                   GetCardNo
//   wevrin=0|1           1 when the link feature is up get_wevrin_status
//   br0ip=<address>      bridge address                gghelper_opmode_repeatermode_get
//   wanlinkmode=<text>   WAN link mode                 gghelper_opmode_repeatermode_get
//   childrouter=<JSON>   one-line JSON value           CreateQueryUpdateverReqjson
//
// A missing file or key gives an empty text (wevrin: 0) and success; a text
// longer than the caller's buffer is cut to fit. CreateQueryUpdateverReqjson
// answers {"childRouter": <value>}, or NULL when the key is missing or its
// value is not JSON.
#pragma once

#include <string>

namespace qdp {

inline constexpr const char *kDeviceFile = "/etc/qdplatform/device.conf";

// The value of key in the device file, "" when missing.
std::string device_value(const char *key);

}  // namespace qdp
