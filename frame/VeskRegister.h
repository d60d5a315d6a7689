// Makes a node class creatable by name: the host looks up "<Class>*" in the
// meta-type system and calls the invokable constructor through the pointer
// type's meta-object.
#pragma once

#include <QByteArray>
#include <QMetaType>

template <typename T>
int veskRegisterClass()
{
    return qRegisterMetaType<T*>(QByteArray(T::staticMetaObject.className()) + "*");
}

#define VESK_REGISTER(Class) int reg_##Class = veskRegisterClass<Class>();
