from ._quarvel import *
