// quarnctl: the operator's tool for the shared-memory tables and the Bidir group state they hold.

#include "Cli.h"

int main(int argc, char** argv) {
  return Quarnctl::runQuarnctl(argc, argv);
}
