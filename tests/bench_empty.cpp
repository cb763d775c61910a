// An extension module without anything in it: what every import costs.
#define Py_LIMITED_API 0x03030000
#include <Python.h>

PyMODINIT_FUNC PyInit_bench_empty()
{
    static PyModuleDef definition;
    definition.m_base = PyModuleDef_HEAD_INIT;
    definition.m_name = "bench_empty";
    definition.m_size = -1;
    return PyModule_Create(&definition);
}
