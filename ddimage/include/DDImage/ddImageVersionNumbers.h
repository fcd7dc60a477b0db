#pragma once
// The host version whose interface this layer follows.

#define kDDImageVersionMajorNum 17
#define kDDImageVersionMinorNum 0
