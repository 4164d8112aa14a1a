#pragma once

#include <gtkmm.h>

namespace MeridKestalWidgets {

// A child of the interface definition by its id. An absent id, or an object
// of another class, gives a null pointer without a word: every user of a
// child tests it first.
template <typename T> Glib::RefPtr<T> fetchChild(const Glib::RefPtr<Gtk::Builder>& builder, const char* id) {
    if (!builder) {
        return {};
    }
    return Glib::RefPtr<T>::cast_dynamic(builder->get_object(id));
}

// The language after a flip: none yet gives Russian, Russian gives English,
// English gives Russian.
template <typename Map> const Map* nextLanguage(const Map* current, const Map& russian, const Map& english) {
    return current == &russian ? &english : &russian;
}

} // namespace MeridKestalWidgets
