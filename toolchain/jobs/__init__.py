"""The jobs of ./dev inside the room, one module each."""
