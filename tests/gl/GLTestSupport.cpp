// Kept for programs that still list this file among their sources (the engine tests): the GL
// process set-up is tests/support/GlTestProcess.cpp, which other programs link as the object
// library qlmr_gl_test_process.
#include "../support/GlTestProcess.cpp"
