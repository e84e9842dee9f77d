// The agent's status numbers are shared with every program: see proto/tavrel_status.h.
#pragma once

#include "proto/tavrel_status.h"
