#include "app/korvo.h"

int main(int argc, char** argv, char** envp) {
  korvo::Korvo app;
  return app.main(argc, argv, envp);
}
