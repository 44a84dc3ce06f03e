// The tavsim command line, as a function so that tests can call it in-process.
#pragma once

namespace sim {

int tavsimMain(int argc, char** argv);

} // namespace sim
