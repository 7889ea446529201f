#include "host/framework/inspector.h"

#include "host/framework/framework.h"

namespace host::framework {
namespace {

ObjectSnapshot View(const Object& object)
{
    ObjectSnapshot view;
    view.handle = object.handle;
    view.type = object.type;
    view.references = object.References();
    view.deleted = object.IsDeleted();
    view.parent = object.parent() != nullptr ? object.parent()->handle : nullptr;
    for (const Object* child = object.firstChild(); child != nullptr; child = child->nextSibling()) {
        view.children.push_back(child->handle);
    }
    for (const struct Context& context : object.contexts) {
        view.contexts.push_back(
            {context.type->ContextName, {static_cast<const std::byte*>(context.memory), context.sizeBytes}});
    }
    object.Show(view);
    return view;
}

template <class Condition>
std::vector<ObjectSnapshot> ViewsOf(const Condition& condition)
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    std::vector<ObjectSnapshot> views;
    framework.handles.ForEach([&](const Object& object) {
        if (condition(object)) {
            views.push_back(View(object));
        }
    });
    return views;
}

}  // namespace

std::vector<ObjectSnapshot> Inspector::Objects() const
{
    return ViewsOf([](const Object&) { return true; });
}

std::vector<ObjectSnapshot> Inspector::Objects(ObjectType type) const
{
    return ViewsOf([type](const Object& object) { return object.type == type; });
}

std::optional<ObjectSnapshot> Inspector::Find(WDFOBJECT handle) const
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const Object* object = framework.handles.Peek(handle);
    return object == nullptr ? std::nullopt : std::optional(View(*object));
}

std::vector<ObjectSnapshot> Inspector::WithContext(std::string_view typeName) const
{
    return ViewsOf([typeName](const Object& object) {
        for (const struct Context& context : object.contexts) {
            if (typeName == context.type->ContextName) {
                return true;
            }
        }
        return false;
    });
}

}  // namespace host::framework
