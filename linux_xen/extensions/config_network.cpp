#include "config_network.h"

char OrigIpString[64] = "";
char OrigMaskString[64] = "";
