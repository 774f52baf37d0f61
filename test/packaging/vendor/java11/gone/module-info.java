/** A module that the vendor compiled with, and that nobody has here. */
module gone {}
