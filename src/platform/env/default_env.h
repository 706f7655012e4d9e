// The default Env factory; declared publicly for hosts.
#pragma once

#include "omrakit/default_env.h"
