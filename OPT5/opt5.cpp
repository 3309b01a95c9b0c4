#include "OPT5/driver.h"

int main(int argc, char** argv) { optimizer_main(argc, argv); }
