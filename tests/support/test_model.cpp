#include "support/test_model.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(Sample)

void Sample::registerMembers(zt::ClassBuilder<Sample> &b)
{
    b.property("name", &Sample::name, &Sample::setName);
    b.property("count", &Sample::count, &Sample::setCount);
    b.method("isEnabled", &Sample::isEnabled);
    b.method("setEnabled:", &Sample::setEnabled);
    b.property("child", &Sample::child, &Sample::setChild);
    b.method("title", &Sample::title);
    b.dependency("title", {QStringLiteral("name"), QStringLiteral("child.name")});
    b.method("items", &Sample::items);
    b.method("countOfItems", &Sample::countOfItems);
    b.method("objectInItemsAtIndex:", &Sample::objectInItemsAtIndex);
    b.method("insertItems:atIndexes:", &Sample::insertItemsAtIndexes);
    b.method("removeItemsAtIndexes:", &Sample::removeItemsAtIndexes);
    b.method("countOfNumbers", &Sample::countOfNumbers);
    b.method("objectInNumbersAtIndex:", &Sample::objectInNumbersAtIndex);
    b.property("tags", &Sample::tags, &Sample::setTags);
    b.method("add:to:", &Sample::add);
    b.method("flip:", &Sample::flip);
    b.method("record:small:unsigned:real:", &Sample::record);
}

ZT_DEFINE_CLASS(Recorder)

ZT_DEFINE_CLASS_WITH_MEMBERS(TestNode)

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
    b.action("renameTo:times:", &TestNode::renameTo);
}

ZT_DEFINE_CLASS(TestSingleton)
ZT_DEFINE_CLASS_WITH_MEMBERS(HeldNode)
void HeldNode::registerMembers(zt::ClassBuilder<HeldNode> &b)
{
    b.action("renameTo:times:", &HeldNode::renameShortTo);
    b.action("ownOnly:", &HeldNode::ownOnly);
}
