// The program that the tests' precompiled headers belong to. They must be made with the flags of an
// executable.
int main() {
  return 0;
}
