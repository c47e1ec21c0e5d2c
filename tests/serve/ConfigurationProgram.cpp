// What the service runs to read the configuration, as a program of its own for the tests.
#include <unistd.h>

#include "serve/image/ConfigurationHelper.h"

int main() {
  return Tessel::Serve::helpWithConfiguration(STDIN_FILENO);
}
