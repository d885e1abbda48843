#include "platform/FileTree.h"
