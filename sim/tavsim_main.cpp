#include "tavsim.h"

int main(int argc, char** argv) { return sim::tavsimMain(argc, argv); }
