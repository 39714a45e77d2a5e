#include "coretest.h"

ZT_DEFINE_CLASS(TestNode)

void TestNode::registerMembers(zt::ClassBuilder<TestNode> &b)
{
    b.property("name", &TestNode::name, &TestNode::setName);
    b.property("count", &TestNode::count, &TestNode::setCount);
    b.property("representation", &TestNode::representation, &TestNode::setRepresentation);
    b.property("buddy", &TestNode::buddy, &TestNode::setBuddy);
    b.method("children", &TestNode::children);
    b.method("insertChildren:atIndexes:", &TestNode::insertChildrenAtIndexes);
    b.method("removeChildrenAtIndexes:", &TestNode::removeChildrenAtIndexes);
    b.method("replaceChildrenAtIndexes:withChildren:", &TestNode::replaceChildrenAtIndexesWithChildren);
    b.method("childDictionaries", &TestNode::childDictionaries);
    b.method("renameTo:times:", &TestNode::renameTo);
}

ZT_DEFINE_CLASS(TestSingleton)
void TestSingleton::registerMembers(zt::ClassBuilder<TestSingleton> &) {}
ZT_DEFINE_CLASS(HeldNode)
void HeldNode::registerMembers(zt::ClassBuilder<HeldNode> &) {}
ZT_DEFINE_CLASS(RecordingRoot)
void RecordingRoot::registerMembers(zt::ClassBuilder<RecordingRoot> &) {}
