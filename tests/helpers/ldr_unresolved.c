/* A module with a reference that nothing defines: loading it with every
   symbol resolved at once must fail. */
extern int kavro_test_nowhere(void);
int kavro_test_call_nowhere(void) { return kavro_test_nowhere(); }
