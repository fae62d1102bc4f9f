#include "client/client.h"
