#pragma once

// Everything of the library's value types in one include.

#include "nvbytes.h"
#include "nvdatapacket.h"
#include "nvdeviceid.h"
#include "nvenums.h"
#include "nvframeparser.h"
#include "nvgnss.h"
#include "nvkvwinfo.h"
#include "nvmath.h"
#include "nvmessage.h"
#include "nvoutputconfiguration.h"
#include "nvportinfo.h"
#include "nvsyncsetting.h"
#include "nvversion.h"
