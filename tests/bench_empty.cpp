// An extension module without anything in it: what every import costs.
#define Py_LIMITED_API 0x03030000
#include <Python.h>

PyMODINIT_FUNC PyInit_bench_empty()
{
    static PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                                     "bench_empty",
                                     nullptr,
                                     -1,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};
    return PyModule_Create(&definition);
}
