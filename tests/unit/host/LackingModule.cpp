extern "C" __attribute__((visibility("default"))) int BRV_IntitializeLibrary() {
  return 1;
}
