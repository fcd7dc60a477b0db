#pragma once
#include "DDImage/DeepOp.h"
