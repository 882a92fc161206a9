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

/** The attributes of an object, read one after the other. An attribute handle would do, but for not telling whether a
 *  read has failed: the object may go in the middle. */
class Attributes {
public:
    explicit Attributes(const TreflectObject &object) : object_(object) {}

    template <class T>
    T read(const TreflectMetaAttribute &attribute) {
        const unsigned cc = attribute.containingMetaObject()->id();
        const auto mc = static_cast<unsigned>(attribute.metaOperGet()->id());
        TipprmiStream request(100);
        TipprmiStream response(100);
        object_.prepareRequestStream_(true, cc, mc, request);
        const bool answered = object_.dispatch(true, cc, mc, request, response);
        TipprmiExceptionContainer raised;
        response >> raised;
        T value{};
        if (answered && raised.getExceptionType() == 0) {
            response >> value;
        } else {
            failed_ = true;
        }
        return value;
    }
    bool failed() const { return failed_; }

private:
    const TreflectObject &object_;
    bool failed_ = false;
};

std::string textOf(Attributes &object, const TreflectMetaAttribute &attribute) {
    return View::printable(object.read<std::string>(attribute));
}
std::string numberOf(Attributes &object, const TreflectMetaAttribute &attribute) {
    return std::to_string(object.read<unsigned>(attribute));
}
std::string counterOf(Attributes &object, const TreflectMetaAttribute &attribute) {
    return std::to_string(object.read<Counter64>(attribute).value);
}

struct Type {
    const char *name;
    std::string (*read)(Attributes &object, const TreflectMetaAttribute &attribute);
};
constexpr Type kTypes[] = {{"string", textOf}, {"unsigned long", numberOf}, {"Counter64", counterOf}};

/** Classes tell the type of an attribute as a parameter of its get operation. */
std::string typeOf(const TreflectMetaAttribute &attribute) {
    const auto &parameters = attribute.metaOperGet()->parameterMap();
    const auto value = parameters.find("value");
    return value != parameters.end() ? value->second : attribute.typeName();
}

std::string namesOf(Attributes &object, const TreflectMetaAttribute &attribute) {
    const auto objects = object.read<TipprmiSequence<TreflectObject>>(attribute);
    std::vector<std::string> names;
    for (unsigned i = 0; i < objects.getLength(); ++i) {
        const std::string name = objects[i].getRelName();
        if (!name.empty()) { // its actor has just ended
            names.push_back(name);
        }
    }
    return View::joined(names);
}

std::string valueOf(Attributes &object, const TreflectMetaAttribute &attribute) {
    if (dynamic_cast<const TreflectSequenceMetaAttribute *>(&attribute) != nullptr) {
        return namesOf(object, attribute);
    }
    for (const Type &type : kTypes) {
        if (typeOf(attribute) == type.name) {
            return type.read(object, attribute);
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
    Table table({{"ATTRIBUTE", Table::Align::left}, {"TYPE", Table::Align::left}, {"VALUE", Table::Align::left}});
    std::list<TreflectMetaAttribute *> attributes;
    meta->attributeList(attributes);
    std::set<const TreflectMetaOperation *> accessors;
    Attributes values(object);
    for (const TreflectMetaAttribute *attribute : attributes) {
        accessors.insert({attribute->metaOperGet(), attribute->metaOperSet()});
        table.add({attribute->name(), typeOf(*attribute), valueOf(values, *attribute)});
    }
    if (values.failed()) {
        return Unit::failGone(path);
    }
    std::printf("%s: class %s (0x%08X), broker 0x%08X\n", View::pathText(path).c_str(), meta->name().c_str(),
                meta->id(), object.getStub()->orbId().value());
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
