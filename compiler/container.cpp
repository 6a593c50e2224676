#include "tazewriter.h"
