#include "platform/Archive.h"
