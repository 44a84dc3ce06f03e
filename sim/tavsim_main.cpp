#include "load_guard.h"
#include "tavsim.h"

int main(int argc, char** argv)
{
    sim::releaseLoadGuard();
    return sim::tavsimMain(argc, argv);
}
