// The test support library: shared fixtures and fault-injecting file systems
// used by the tests of every folder.
namespace testsupport {
int supportLibraryAnchor = 0;
}
