// The precompiled header of the tests belongs to a program like theirs: this one, which does
// nothing.
int main() {
  return 0;
}
