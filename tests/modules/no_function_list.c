/* A shared object that loads but is no PKCS#11 module: it lacks
 * C_GetFunctionList. */
int x509auth_fault_module_marker(void) { return 1; }
