// See json.h.
#pragma once

#include "json.h"
