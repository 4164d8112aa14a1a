#!/usr/bin/env bash
echo "make run: not available yet"
