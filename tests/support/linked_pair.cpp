#include "support/linked_pair.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(TestRoot)

void TestRoot::registerMembers(zt::ClassBuilder<TestRoot> &b)
{
    b.method("registerClient", &TestRoot::registerClient);
    b.method("handshakeFromAgent:", &TestRoot::handshakeFromAgent);
    b.method("note:", &TestRoot::note);
    b.method("echo:", &TestRoot::echo);
    b.method("sum:with:", &TestRoot::sumWith);
    b.method("lengthOf:", &TestRoot::lengthOf);
    b.method("takeReal:", &TestRoot::takeReal);
    b.method("gadget", &TestRoot::gadget);
    b.method("refuse:", &TestRoot::refuse);
    b.method("exhaust", &TestRoot::exhaust);
}
