// The message moved to foundation/, where every handler layer can reach it.
#pragma once
#include "foundation/RequestMessage.h"
