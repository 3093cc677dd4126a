#include "cli/command_line.h"

int main(int argc, char** argv) {
    return tevrin::run_command_line(argc, argv);
}
