// A C++ application that embeds Python through the installed package
// (find_package(kest), target kest::python), as docs/embedding.md walks
// through it: a host class and module that scripts use, evaluation with a
// scope, calling Python and reading what it returns, the sandbox, interrupting
// and capturing output, and evaluating from several threads.
//
// Exits 0 when every step gave what it should; prints each step.

#include <kest/python.hpp>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

using namespace kest::literals;
namespace py = kest::python;

namespace {

int failures = 0;

void check(bool ok, const std::string &what) {
  std::cout << (ok ? "ok    " : "FAILED") << "  " << what << "\n";
  failures += ok ? 0 : 1;
}

/// A host module kest.shop with a function and a class Order, for scripts.
void declare_shop() {
  // [declare]
  kest::module_ shop("kest.shop", "Orders and prices.");
  shop.def("vat", [](double net, double rate) { return net * rate; }, "net"_a, "rate"_a = 0.19, "The tax on a price.");
  static const auto order = kest::class_(shop, "Order", "An order of some pieces at a price.")
      .field<std::string>("customer").field<double>("price").field<std::int64_t>("quantity")
      .init([](const kest::Any &self, std::string customer, double price, std::int64_t quantity) {
              kest::set_field(self, "customer"_field, customer);
              kest::set_field(self, "price"_field, price);
              return kest::set_field(self, "quantity"_field, quantity);
            }, "customer"_a, "price"_a, "quantity"_a = 1)
      .def("total", [](const kest::Any &self) {
             return kest::field<double>(self, "price"_field) * kest::field<double>(self, "quantity"_field);
           }, "The price of all pieces.")
      .declare();
  // [declare]
}

void task_ab_scripts_use_the_class_and_a_scope() {
  // [scope]
  auto total_of_order = py::exec("import kest.shop\n"
                                 "o = kest.shop.Order('ann', 2.5, quantity=4)\n"
                                 "return o.total() + kest.shop.vat(o.total())");
  py::scope names{{"price", 12.5}, {"count", 3}};
  names.out("total", 0.0);
  auto label = py::exec("total = price * count\nreturn f'{count} items'", names);
  double total = kest::to<double>(names["total"]);                   // 37.5
  double half = kest::to<double>(py::eval("0.5 * 4"));               // 2.0 (it arrives as the Integer 2)
  auto error = py::eval("{}['missing']").as<kest::Error>();          // KeyError: 'missing', line 1
  // [scope]
  check(kest::to<double>(total_of_order) == 11.9, "a script makes an Order and calls its methods: 11.9");
  check(kest::to<std::string>(label) == "3 items" && total == 37.5 && half == 2.0, "statements and expressions with a scope");
  check(error.headline().toUtf8() == "KeyError: 'missing'" && error.line() == 1, "an error: " + error.headline().toUtf8());
}

void task_c_call_python_and_walk_the_result() {
  // [call]
  auto stats = py::exec("def stats(xs):\n    return {'sum': sum(xs), 'sorted': sorted(xs)}\nreturn stats");
  auto result = py::call(stats.as<kest::Any>(), kest::List{kest::Integer(3), kest::Integer(1), kest::Integer(2)});
  auto dict = result.as<kest::I_Map>();                                 // the Python dict itself
  auto list = dict.get(kest::String(u"sorted")).as<kest::I_Sequence>();
  std::vector<std::int64_t> sorted;
  for (std::int64_t i = 0, n = kest::to<std::int64_t>(list.length()); i < n; ++i)
    sorted.push_back(kest::to<std::int64_t>(list.at(i)));
  (void)result.as<kest::I_MutableMap>().set(kest::String(u"checked"), kest::Boolean(true)); // Python sees it
  auto json = py::call(py::import_module("json").as<kest::Any>(), "dumps", dict);
  // [call]
  check(sorted == std::vector<std::int64_t>{1, 2, 3} && kest::to<std::int64_t>(dict.get(kest::String(u"sum"))) == 6,
        "walked the list and dict a Python function returned");
  check(kest::to<std::string>(json) == R"({"sum": 6, "sorted": [1, 2, 3], "checked": true})",
        "json.dumps of the changed dict: " + kest::to<std::string>(json));

  // [loop]
  auto numbers = py::eval("list(range(100000))").as<kest::I_Iterable>();
  std::int64_t sum = 0;
  {
    py::gil hold; // one lock for the whole loop, not one per element
    for (const kest::Any &n : numbers)
      sum += kest::to<std::int64_t>(n);
  }
  // [loop]
  check(sum == 4999950000, "walked a Python list of 100,000 ints holding the lock once");
}

void task_d_the_sandbox() {
  // [sandbox]
  auto refused = py::exec_sandboxed("open('/tmp/shop-sandbox.txt', 'w')");
  auto allowed = py::eval_sandboxed("sum(range(n))", {{"n", 10}});
  // [sandbox]
  check(refused.isError() && kest::to<int>(allowed) == 45, "the sandbox refuses writing a file and still computes");
}

void task_e_interrupt_and_capture() {
  // [interrupt]
  kest::Any worker;
  std::thread runaway([&] {
    worker = py::current_thread();
    auto stopped = py::exec("while True:\n    pass");              // ends with KeyboardInterrupt
    check(kest::qualname(kest::raw_class_of(stopped)).toUtf8() == "kest.cpython.KeyboardInterrupt", "interrupted");
  });
  while (worker.empty() || !py::interrupt(worker))                   // until it runs and takes the request
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  runaway.join();
  std::string printed = py::capture_output([] { (void)py::exec("print('hello')\nprint(6 * 7)"); });
  // [interrupt]
  check(printed == "hello\n42\n", "captured output: " + printed);
}

void task_f_threads() {
  // [threads]
  std::vector<std::thread> threads;
  std::vector<std::string> outputs(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &outputs] {
      outputs[t] = py::capture_output([t] {
        for (int i = 0; i < 100; ++i)
          (void)py::exec("print(t, i)", {{"t", t}, {"i", i}});
      });
    });
  for (auto &thread : threads)
    thread.join();
  // [threads]
  bool each_its_own = true;
  for (int t = 0; t < 4; ++t) {
    std::string expected;
    for (int i = 0; i < 100; ++i)
      expected += std::to_string(t) + " " + std::to_string(i) + "\n";
    each_its_own = each_its_own && outputs[t] == expected;
  }
  check(each_its_own, "4 threads evaluated 100 times each, each capturing its own output");
}

} // namespace

int main() {
  // [start]
  declare_shop();
  auto started = py::start();
  if (started.isError()) {
    std::cerr << "Python did not start: " << started.as<kest::Error>().headline().toUtf8() << "\n";
    return 1;
  }
  // [start]
  task_ab_scripts_use_the_class_and_a_scope();
  task_c_call_python_and_walk_the_result();
  task_d_the_sandbox();
  task_e_interrupt_and_capture();
  task_f_threads();
  std::cout << (failures == 0 ? "all steps passed\n" : "some steps failed\n");
  return failures == 0 ? 0 : 1;
}
