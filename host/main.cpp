// nphost, the stand-alone host of the number-portability plug-in.
#include "host/CommandLine.h"

int main(int argc, char** argv) {
    return nphost::run(argc, argv);
}
