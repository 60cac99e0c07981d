// struct_round_trip.cpp: a plain struct sent and received as an XML-RPC struct.
//
//   struct_round_trip_cpp [URL]     (default http://127.0.0.1:8080/RPC2, an hvserve)
//
// HV_RECORD, placed after the struct in its own namespace, maps the fields to struct members in
// the order listed and back by name; nested records, vectors, optional members (left out when
// empty), bytes and time points all travel. examples.echo sends the value back unchanged.
#include <HalvosCore/HalvosCore.hpp>

#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace library {
struct Author {
    std::string name;
    std::chrono::system_clock::time_point born;
};
HV_RECORD(Author, name, born)

struct Book {
    std::string title;
    int pages = 0;
    std::vector<Author> authors;
    std::optional<std::string> subtitle;
    std::vector<std::byte> cover;
};
HV_RECORD(Book, title, pages, authors, subtitle, cover)
} // namespace library

int main(int argc, char **argv) try {
    hv::Client client{argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2"};
    using namespace std::chrono;
    library::Book sent{"Sketch of the Analytical Engine",
                       66,
                       {{"Ada Lovelace", system_clock::time_point(seconds(-4906137600))}},
                       std::nullopt,
                       {std::byte{0x89}, std::byte{'P'}, std::byte{'N'}, std::byte{'G'}}};
    library::Book back = client.call<library::Book>("examples.echo", sent);
    std::cout << "sent:     " << hv::Value(sent) << "\n";
    std::cout << "received: " << back.title << ", " << back.pages << " pages, by " << back.authors.at(0).name
              << (back.authors.at(0).born == sent.authors.at(0).born ? " (born the same day)"
                                                                     : " (date changed!)")
              << ", cover " << back.cover.size() << " bytes, subtitle "
              << (back.subtitle ? "present" : "absent") << "\n";
    return back.title == sent.title && back.cover == sent.cover ? 0 : 1;
} catch (const hv::Error &error) {
    std::cerr << error.what() << "\n";
    return 1;
}
