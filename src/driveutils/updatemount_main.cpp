#include "driveutils/updatemount.h"

int main(int argc, char** argv) { return updatemount(argc, argv); }
