/* A module for the loader's tests: one function and one variable. */
int kavro_test_answer(void) { return 42; }
int kavro_test_counter = 7;
