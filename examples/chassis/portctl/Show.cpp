// Shows an object by what its class tells of itself at run time: nothing here knows the attributes of a port.

#include "Counter64.h"
#include "Unit.h"
#include "objects/REFLECT_objectStub.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"
#include "view/Table.h"

#include <cstdio>
#include <list>
#include <set>

using View::Table;

namespace {

template <class T>
T read(const TreflectAttribute &attribute) {
    T value{};
    attribute.get(value);
    return value;
}

std::string textOf(const TreflectAttribute &attribute) {
    return View::printable(read<std::string>(attribute));
}
std::string numberOf(const TreflectAttribute &attribute) {
    return std::to_string(read<unsigned>(attribute));
}
std::string counterOf(const TreflectAttribute &attribute) {
    return std::to_string(read<Counter64>(attribute).value);
}

struct Type {
    const char *name;
    std::string (*read)(const TreflectAttribute &attribute);
};
constexpr Type kTypes[] = {{"string", textOf}, {"unsigned long", numberOf}, {"Counter64", counterOf}};

/** Classes tell the type of an attribute as a parameter of its get operation. */
std::string typeOf(const TreflectMetaAttribute &attribute) {
    const auto &parameters = attribute.metaOperGet()->parameterMap();
    const auto value = parameters.find("value");
    return value != parameters.end() ? value->second : attribute.typeName();
}

std::string namesOf(const TreflectAttribute &attribute) {
    const auto objects = read<TipprmiSequence<TreflectObject>>(attribute);
    std::vector<std::string> names;
    for (unsigned i = 0; i < objects.getLength(); ++i) {
        names.push_back(objects[i].getRelName());
    }
    return View::joined(names);
}

std::string valueOf(const TreflectObject &object, const TreflectMetaAttribute &meta) {
    const TreflectAttribute &attribute = *object.attribute(meta.name());
    if (dynamic_cast<const TreflectSequenceMetaAttribute *>(&meta) != nullptr) {
        return namesOf(attribute);
    }
    for (const Type &type : kTypes) {
        if (typeOf(meta) == type.name) {
            return type.read(attribute);
        }
    }
    return "(not of a type that can be shown)";
}

std::string signatureOf(const TreflectMetaOperation &operation) {
    std::string parameters;
    for (const auto &[name, type] : operation.parameterMap()) {
        parameters += (parameters.empty() ? "" : ", ") + type + " " + name;
    }
    return operation.name() + "(" + parameters + ")";
}

} // namespace

int show(const Arguments &arguments) {
    if (arguments.size() != 1) {
        return failUsage("show takes one PATH");
    }
    const TreflectHandlerState state(true);
    View::Path path;
    TreflectObject object;
    if (const int problem = Unit::find(arguments[0], path, object)) {
        return problem;
    }
    const TreflectMetaObject *const meta = object.meta();
    if (meta == nullptr) {
        return fail(refused,
                    View::pathText(path) + " is of a class that is not known here, or its actor has just ended");
    }
    std::printf("%s: class %s (0x%08X), broker 0x%08X\n", View::pathText(path).c_str(), meta->name().c_str(),
                meta->id(), object.getStub()->orbId().value());
    Table table({{"ATTRIBUTE", Table::Align::left}, {"TYPE", Table::Align::left}, {"VALUE", Table::Align::left}});
    std::list<TreflectMetaAttribute *> attributes;
    meta->attributeList(attributes);
    std::set<const TreflectMetaOperation *> accessors;
    for (const TreflectMetaAttribute *attribute : attributes) {
        accessors.insert({attribute->metaOperGet(), attribute->metaOperSet()});
        table.add({attribute->name(), typeOf(*attribute), valueOf(object, *attribute)});
    }
    std::fputs(table.text().c_str(), stdout);
    std::list<TreflectMetaOperation *> operations;
    meta->operationList(operations);
    for (const TreflectMetaOperation *operation : operations) {
        if (accessors.count(operation) == 0) {
            std::printf("operation %s\n", signatureOf(*operation).c_str());
        }
    }
    return done;
}
