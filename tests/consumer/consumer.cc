// A host program that uses the installed library through its umbrella header.
#include <quillo/quillo.h>

#include <cstdio>

int main() {
  quillo::Variant v = quillo::CreateObject("QuilloTestClass");
  std::printf("consumer: created %s\n", v.ToObject()->TypeName().c_str());
  return 0;
}
