// The main of every benchmark program without a mode of its own.
#include "benchratio.h"

int main(int argc, char** argv)
{
    return runBenchmarks(argc, argv);
}
