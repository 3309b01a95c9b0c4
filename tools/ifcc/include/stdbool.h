#ifndef IFCC_STDBOOL_H
#define IFCC_STDBOOL_H
#define bool _Bool
#define true 1
#define false 0
#endif
