// OmraSessionError: the kit's one error kind, for failures of the network connection.
#pragma once

namespace omra {

enum class OmraSessionError {
  NetworkConnectionError,
};

}  // namespace omra
