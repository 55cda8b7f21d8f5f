#include "abstractoptionspage.h"
