// Version texts the kit sends with its requests.
#pragma once

namespace omra {

// The kit's own version, sent as "pod_version".
inline constexpr char OMRA_POD_VERSION[] = "v0.3.6";
// The layout version of the recorded data, sent as "data_version".
inline constexpr char DATA_VERSION[] = "0.3";

}  // namespace omra
