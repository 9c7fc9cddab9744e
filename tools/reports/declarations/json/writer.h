// See json.h.
#pragma once
#include "json/json.h"
